# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Functions and package lists for the scripts, which source this file. The functions install Debian packages and
# write to build/. They change nothing else on the machine: an installation starts no service, and the service of a
# newly installed sshd is disabled.

export LC_ALL=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
checkout=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)

# Most presets also build the tests, so they need the test libraries.
# shellcheck disable=SC2034 # used by the scripts that source this
build_packages=(g++ cmake ninja-build libssl-dev nlohmann-json3-dev libgtest-dev python3-pytest)
# shellcheck disable=SC2034
clang_packages=(clang)
# shellcheck disable=SC2034
deb_packages=(build-essential debhelper cmake libssl-dev nlohmann-json3-dev)
# shellcheck disable=SC2034
cross_packages=(mmdebstrap)
# shellcheck disable=SC2034
deb_test_packages=(lintian reprotest faketime piuparts mmdebstrap systemd-container qemu-user-static)
# shellcheck disable=SC2034
fuzz_packages=(clang libclang-rt-dev llvm)
# shellcheck disable=SC2034
lab_packages=(iproute2 mount util-linux openssh-server openssh-client)
# shellcheck disable=SC2034 # the package tshark depends on the one that has dumpcap
wire_packages=(tshark)
# shellcheck disable=SC2034
test_packages=(strace nftables e2fsprogs)
# shellcheck disable=SC2034
embed_packages=(g++ cmake ninja-build libssl-dev pkgconf)
# shellcheck disable=SC2034
fault_packages=(strace time)
# shellcheck disable=SC2034
bench_packages=(libbenchmark-dev zlib1g-dev sshpass gnuplot-nox)

# A command prefix. It runs a command as the caller of sudo, if that user owns the checkout. Otherwise it is empty.
as_caller=()
if ((EUID == 0)) && [[ ${SUDO_UID:-0} != 0 && $(stat -c %u "$checkout") == "$SUDO_UID" ]]; then
  as_caller=(setpriv --reuid "$SUDO_UID" --regid "$SUDO_GID" --init-groups
    env "HOME=$(getent passwd "$SUDO_UID" | cut -d : -f 6)")
fi

bold='' plain=''
if [[ -t 1 ]]; then
  bold=$'\e[1m' plain=$'\e[0m'
fi

# heading TEXT...: prints a heading.
heading() {
  printf '\n%s== %s%s\n' "$bold" "$*" "$plain"
}

# fail REASON...: prints the reason and exits with status 1.
fail() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# require_root ARGUMENT...: unless the script runs as root, prints the command to type and exits.
# The ARGUMENTs are those of the script.
require_root() {
  if ((EUID != 0)); then
    printf '%s needs root, type: sudo%s\n' "${0##*/}" "$(printf ' %q' "$0" "$@")" >&2
    exit 1
  fi
}

# Makes the caller of sudo the owner of build/, because root may have written files there.
return_build() {
  if [[ ${as_caller[*]} && -d $checkout/build ]]; then
    chown -R "$SUDO_UID:$SUDO_GID" "$checkout/build"
  fi
}

# leave_root ARGUMENT...: restarts the script as the caller of sudo, if that user owns the checkout. The ARGUMENTs are
# those of the script. It is for scripts that need root only to install packages.
leave_root() {
  if [[ ${as_caller[*]} ]]; then
    return_build
    exec "${as_caller[@]}" "$0" "$@"
  fi
}

# quietly WHAT COMMAND...: runs the command. If it fails, shows its output and a message with its name WHAT, and exits.
quietly() {
  local what=$1 output
  shift
  output=$("$@" 2>&1) || {
    printf '%s\n' "$output" >&2
    fail "$what failed"
  }
}

# Prevents installations from starting services until allow_services is called, unless the machine has a policy already.
# A background process removes the policy when its pipe closes. This shell and apt-get hold the pipe open, so the policy
# is removed even after this shell is killed, but not while apt-get still runs.
forbid_services() {
  local policy=/usr/sbin/policy-rc.d
  policy_pipe=''
  if [[ ! -e $policy ]]; then
    exec {policy_pipe}> >(trap '' HUP INT TERM && cat >/dev/null && rm -f "$policy")
    policy_remover=$!
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod 0755 "$policy"
  fi
}

allow_services() {
  if [[ $policy_pipe ]]; then
    exec {policy_pipe}>&-
    wait "$policy_remover"
  fi
}

# install_missing PACKAGE...: installs the missing ones of these packages. No other function installs packages.
# If sshd is already installed, its service stays as it is.
install_missing() {
  local package missing=() had_sshd='' policy_pipe policy_remover
  for package in "$@"; do
    # dpkg-query prints a line for each architecture of the package.
    if ! dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed; then
      missing+=("$package")
    fi
  done
  if ((${#missing[@]} == 0)); then
    return
  fi
  ((EUID == 0)) || fail "packages are missing, type: sudo apt-get install ${missing[*]}"
  echo "Installing ${missing[*]}"
  [[ ! -e /usr/sbin/sshd ]] || had_sshd=yes
  export DEBIAN_FRONTEND=noninteractive
  quietly 'apt-get update' apt-get update
  forbid_services
  quietly 'apt-get install' apt-get install --yes --no-install-recommends "${missing[@]}" </dev/null
  allow_services
  if [[ ! $had_sshd && -e /usr/sbin/sshd ]]; then
    quietly 'disabling the ssh service' update-rc.d ssh disable
    echo 'Installed openssh-server and disabled its service. To start it, type: sudo systemctl enable --now ssh'
  fi
}

# build PRESET [TARGET...]: builds the targets, or all targets if none is named.
build() {
  local preset=$1
  shift
  echo "Building $preset"
  cd "$checkout" || return
  return_build
  quietly "configuring $preset" "${as_caller[@]}" cmake --preset "$preset"
  quietly "building $preset" "${as_caller[@]}" cmake --build --preset "$preset" ${1+--target "$@"}
}
