# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Functions for scripts that use the lab. Source this file after scripts/common.sh. Like lab/up, it leaves nothing
# behind. A script that calls start_lab must call stop_lab in its EXIT trap. If the script is killed, the lab also ends.
lab_folder=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)

# shellcheck disable=SC2034 # used by the scripts that source this
declare -A pid=() peer=([server]=client [client]=server) address=([server]=172.20.10.1 [client]=172.20.10.2)

# start_lab [--sshd]: starts the lab and fills `pid`. Bash closes the lab's pipe in subshells and on exec, so no child
# of the script keeps the lab alive.
start_lab() {
  coproc LAB { exec "$lab_folder/up" "$@"; }
  { read -r _ 'pid[server]' && read -r _ 'pid[client]'; } <&"${LAB[0]}" || fail 'the hosts did not start'
}

# Ends the lab and waits until lab/up is gone. It waits at most 5 s, because after ^C the machine's init may be late to
# reap the processes of the lab.
stop_lab() {
  if [[ ${LAB_PID-} ]]; then
    local lab=$LAB_PID lab_input=${LAB[1]}
    exec {lab_input}>&-
    timeout 5 tail --pid="$lab" -s 0.02 -f /dev/null || true
  fi
}

# on HOST COMMAND...: runs a command on the host `server` or `client`.
on() {
  local host=$1
  shift
  "$lab_folder/on" "${pid[$host]}" "$@"
}
