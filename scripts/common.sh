# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# What the scripts share; to be sourced. It installs Debian packages where asked to and writes to build/.
# Nothing else of the machine changes: an installation starts no service, and does not leave sshd enabled.

export LC_ALL=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
checkout=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)

# The presets configure the tests along with the programs, so every build needs the test library.
# shellcheck disable=SC2034 # used by the scripts that source this
build_packages=(g++ cmake ninja-build libssl-dev libgtest-dev python3-pytest)
# shellcheck disable=SC2034
clang_packages=(clang)
# shellcheck disable=SC2034
deb_packages=(build-essential debhelper cmake libssl-dev)
# shellcheck disable=SC2034
cross_packages=(mmdebstrap)
# shellcheck disable=SC2034
deb_test_packages=(lintian reprotest faketime piuparts mmdebstrap systemd-container qemu-user-static procps)
# shellcheck disable=SC2034
fuzz_packages=(clang libclang-rt-dev llvm)
# shellcheck disable=SC2034
lab_packages=(iproute2 mount util-linux openssh-server openssh-client)
# shellcheck disable=SC2034 # tshark brings dumpcap along
wire_packages=(tshark)
# shellcheck disable=SC2034
test_packages=(strace nftables)
# shellcheck disable=SC2034
embed_packages=(g++ cmake ninja-build libssl-dev pkgconf)
# shellcheck disable=SC2034
fault_packages=(strace time)
# shellcheck disable=SC2034
bench_packages=(libbenchmark-dev zlib1g-dev sshpass gnuplot-nox)

# Put before a command, this runs it as the user who called sudo, if the checkout is theirs.
as_caller=()
if ((EUID == 0)) && [[ ${SUDO_UID:-0} != 0 && $(stat -c %u "$checkout") == "$SUDO_UID" ]]; then
  as_caller=(setpriv --reuid "$SUDO_UID" --regid "$SUDO_GID" --init-groups
    env "HOME=$(getent passwd "$SUDO_UID" | cut -d : -f 6)")
fi

bold='' plain=''
if [[ -t 1 ]]; then
  bold=$'\e[1m' plain=$'\e[0m'
fi

heading() {
  printf '\n%s== %s%s\n' "$bold" "$*" "$plain"
}

fail() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# require_root ARGUMENT...: with the caller's own arguments.
require_root() {
  if ((EUID != 0)); then
    printf '%s needs root, type: sudo%s\n' "${0##*/}" "$(printf ' %q' "$0" "$@")" >&2
    exit 1
  fi
}

# Gives the caller what root has written to build/.
return_build() {
  if [[ ${as_caller[*]} && -d $checkout/build ]]; then
    chown -R "$SUDO_UID:$SUDO_GID" "$checkout/build"
  fi
}

# leave_root ARGUMENT...: starts the script again as the caller, with the caller's own arguments. For scripts
# that need root only to install packages.
leave_root() {
  if [[ ${as_caller[*]} ]]; then
    return_build
    exec "${as_caller[@]}" "$0" "$@"
  fi
}

# quietly WHAT COMMAND...: shows the command's output only when it fails.
quietly() {
  local what=$1 output
  shift
  output=$("$@" 2>&1) || {
    printf '%s\n' "$output" >&2
    fail "$what failed"
  }
}

# Keeps installations from starting services until leash is closed, unless the machine has a policy already.
# A process of its own takes the policy away: it waits for the end of a pipe that this shell and apt-get hold,
# so it does so even after a SIGKILL, and not while apt-get still works.
hold_services() {
  local policy=/usr/sbin/policy-rc.d
  leash=''
  if [[ ! -e $policy ]]; then
    exec {leash}> >(trap '' HUP INT TERM && cat >/dev/null && rm -f "$policy")
    leash_holder=$!
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod 0755 "$policy"
  fi
}

release_services() {
  if [[ $leash ]]; then
    exec {leash}>&-
    wait "$leash_holder"
  fi
}

# install_missing PACKAGE...: only this installs packages. An sshd that was there before is left alone.
install_missing() {
  local package missing=() had_sshd='' leash leash_holder
  for package in "$@"; do
    # One line for each architecture that it is known for.
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
  hold_services
  quietly 'apt-get install' apt-get install --yes --no-install-recommends "${missing[@]}" </dev/null
  release_services
  if [[ ! $had_sshd && -e /usr/sbin/sshd ]]; then
    quietly 'disabling the ssh service' update-rc.d ssh disable
    echo 'Installed openssh-server for its sshd; its service is disabled' \
      '(sudo systemctl enable --now ssh starts it)'
  fi
}

# build PRESET [TARGET...]: all targets unless some are named.
build() {
  local preset=$1
  shift
  echo "Building $preset"
  cd "$checkout" || return
  return_build
  quietly "configuring $preset" "${as_caller[@]}" cmake --preset "$preset"
  quietly "building $preset" "${as_caller[@]}" cmake --build --preset "$preset" ${1+--target "$@"}
}
