# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Functions and package lists for the scripts, which source this file. The functions install Debian packages and
# write to build/. They change nothing else on the machine: an installation starts no service, and the service of a
# newly installed sshd is disabled.

export LC_ALL=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
unset CDPATH
checkout=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
script=$(cd "$(dirname "$0")" && pwd -P)/${0##*/}
script_arguments=("$@")

# The packages that the scripts need, by purpose. Most presets also build the tests, so `build` has their libraries.
# Debian's tshark depends on the package that has dumpcap.
declare -A package_lists=(
  [python]='python3'
  [build]='g++ cmake ninja-build libssl-dev nlohmann-json3-dev libgtest-dev python3-pytest'
  [clang]='clang'
  [lint]='clang-format clang-tidy cppcheck shellcheck pyflakes3 pycodestyle mandoc'
  [deb]='build-essential architecture-properties debhelper cmake libssl-dev nlohmann-json3-dev'
  [root]='mmdebstrap'
  [deb_test]='lintian reprotest faketime piuparts mmdebstrap systemd-container qemu-user-static'
  [fuzz]='clang libclang-rt-dev llvm'
  [lab]='iproute2 mount util-linux openssh-server openssh-client'
  [wire]='tshark'
  [test]='strace nftables e2fsprogs sudo aspell aspell-en'
  [embed]='g++ cmake ninja-build libssl-dev pkgconf'
  [fault]='strace time'
  [bench]='libbenchmark-dev sshpass strace'
)

# If root uses another user's checkout, `owner` is the UID:GID of this user, and the prefix `as_owner` runs a command as
# this user. Otherwise both are empty. The user has called sudo or su. In a container, the owner of the checkout may
# have no account, or no access to the checkout. Then root keeps it.
owner='' as_owner=()
find_owner() {
  local uid account gid home
  uid=$(stat -c %u "$checkout")
  if ((EUID == 0 && uid != 0 && ${SUDO_UID:-$uid} == uid)) && account=$(getent passwd "$uid"); then
    IFS=: read -r _ _ _ gid _ home _ <<<"$account"
    as_owner=(setpriv --reuid "$uid" --regid "$gid" --init-groups env "HOME=$home")
    if "${as_owner[@]}" test -w "$checkout"; then
      owner=$uid:$gid
    else
      as_owner=()
    fi
  fi
}
find_owner

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

# The comment at the top of the script, without the licence. It begins with SYNOPSIS: DESCRIPTION.
header() {
  sed -n '3,/^[^#]/ s/^# \{0,1\}//p' "$script"
}

# Prints how to call the script, and exits with status 2.
usage() {
  header | sed 's/:.*//; s/^/usage: /; q' >&2
  exit 2
}

# read_arguments OPTIONS MOST ARGUMENT...: reads the script's ARGUMENTs. OPTIONS lists its long options as in getopt(1).
# At most MOST other words may follow the options. The result is in `option`, by name, and in `words`.
# Answers --help, and exits if an argument is wrong. The value of an option must not begin with "-", because it would be
# the next option.
declare -A option=()
words=()
read_arguments() {
  local options=,$1, most=$2 parsed
  shift 2
  parsed=$(getopt --name "${0##*/}" --options +h --longoptions "help$options" -- "$@") || usage
  eval "set -- $parsed"
  while [[ $1 != -- ]]; do
    case $1 in
      -h | --help)
        header
        exit
        ;;
    esac
    if [[ $options == *",${1#--}:,"* ]]; then
      [[ $2 && $2 != -* ]] || usage
      option[${1#--}]=$2
      shift
    else
      # shellcheck disable=SC2034 # used by the scripts that source this
      option[${1#--}]=yes
    fi
    shift
  done
  shift
  (($# <= most)) || usage
  # shellcheck disable=SC2034
  words=("$@")
}

# Unless the script runs as root, restarts it with sudo. Without sudo, prints the command to run and exits.
become_root() {
  local command
  ((EUID != 0)) || return 0
  command=$(printf '%q ' "$script" "${script_arguments[@]}")
  command=${command% }
  if [[ ! $(command -v sudo) ]]; then
    fail "this needs root, and sudo is not installed. Run: su -c ${command@Q}"
  fi
  printf '%s needs root and starts again with sudo. If you may not use sudo, run: su -c %s\n' \
    "${0##*/}" "${command@Q}" >&2
  exec sudo ${CI+env "CI=$CI"} "$script" "${script_arguments[@]}"
}

# Makes the owner of the checkout the owner of build/, because root may have written files there.
return_build() {
  if [[ $owner && -d $checkout/build ]]; then
    chown -R "$owner" "$checkout/build"
  fi
}

# leave_to_user FILE: makes a file of root belong to the user who has called sudo, or to the owner of the checkout.
leave_to_user() {
  local user=${SUDO_UID+$SUDO_UID:$SUDO_GID}
  user=${user:-$owner}
  [[ ! $user ]] || chown "$user" "$1"
}

# Restarts the script as the owner of the checkout, if that is another user. It is for scripts that need root only to
# install packages.
leave_root() {
  if [[ $owner ]]; then
    return_build
    exec "${as_owner[@]}" "$script" "${script_arguments[@]}"
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

# install_missing LIST...: installs the packages of these lists that are missing. No other function installs packages.
# If sshd is already installed, its service stays as it is. A package list that cannot be downloaded matters only if the
# installation then fails.
install_missing() {
  local list package missing=() had_sshd='' lists stale='' output failed='' policy_pipe policy_remover
  for list in "$@"; do
    for package in ${package_lists[$list]}; do
      # dpkg-query prints a line for each architecture of the package.
      if ! dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed; then
        missing+=("$package")
      fi
    done
  done
  if ((${#missing[@]} == 0)); then
    return
  fi
  become_root
  echo "Installing ${missing[*]}"
  [[ ! -e /usr/sbin/sshd ]] || had_sshd=yes
  export DEBIAN_FRONTEND=noninteractive
  lists=$(apt-get -o APT::Update::Error-Mode=any update 2>&1) || stale=yes
  forbid_services
  output=$(apt-get install --yes --no-install-recommends "${missing[@]}" 2>&1 </dev/null) || failed=yes
  allow_services
  if [[ $failed && $stale ]]; then
    grep -E '^[EW]: ' <<<"$lists" >&2
    printf '%s\n' "$output" >&2
    fail 'apt-get could not download the package lists, see above. Is this machine connected to a network?'
  elif [[ $failed ]]; then
    printf '%s\n' "$output" >&2
    fail 'apt-get install failed'
  fi
  if [[ ! $had_sshd && -e /usr/sbin/sshd ]]; then
    quietly 'disabling the ssh service' update-rc.d ssh disable
    echo 'Installed openssh-server and disabled its service. To start it, run as root: systemctl enable --now ssh'
  fi
}

# build PRESET [TARGET...]: builds the targets, or all targets if none is named.
build() {
  local preset=$1
  shift
  echo "Building $preset"
  cd "$checkout" || return
  return_build
  quietly "configuring $preset" "${as_owner[@]}" cmake --preset "$preset"
  quietly "building $preset" "${as_owner[@]}" cmake --build --preset "$preset" ${1+--target "$@"}
}
