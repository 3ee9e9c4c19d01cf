# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# The lab for scripts; to be sourced after scripts/common.sh. It touches what lab/up touches: nothing that
# outlives it. A script that starts a lab ends it in its EXIT trap; if it is killed, the lab ends by itself.
lab_folder=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)

# shellcheck disable=SC2034 # used by the scripts that source this
declare -A pid=() peer=([server]=client [client]=server) address=([server]=172.20.10.1 [client]=172.20.10.2)

# start_lab [--sshd]: fills pid. The pipe's ends are closed on exec, and bash closes them in subshells: no
# child keeps the lab alive.
start_lab() {
  coproc LAB { exec "$lab_folder/up" "$@"; }
  { read -r _ 'pid[server]' && read -r _ 'pid[client]'; } <&"${LAB[0]}" || fail 'the hosts did not start'
}

# Returns when all is gone, or after 5 s: the machine's init reaps what a ^C has cut off in its own time.
stop_lab() {
  if [[ ${LAB_PID-} ]]; then
    local lab=$LAB_PID leash=${LAB[1]}
    exec {leash}>&-
    timeout 5 tail --pid="$lab" -s 0.02 -f /dev/null || true
  fi
}

# on HOST COMMAND...
on() {
  local host=$1
  shift
  "$lab_folder/on" "${pid[$host]}" "$@"
}
