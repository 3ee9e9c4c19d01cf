# SPDX-License-Identifier: MIT
# shellcheck shell=bash disable=SC2207 # no completion contains a blank
# Bash completion for the programs. It is installed once for each program, because bash-completion looks for a file with
# the name of the command.

_dorve() {
  local word=$2 choices='--help --version'
  case ${1##*/} in
    dorve-doctor) choices+=' --json --timeout --user client server' ;;
    dorve-unpair) choices+=' --dry-run' ;;
  esac
  case $3 in
    --user) COMPREPLY=($(compgen -u -- "$word")) ;;
    --timeout) COMPREPLY=() ;;
    *) COMPREPLY=($(compgen -W "$choices" -- "$word")) ;;
  esac
}
complete -F _dorve dorve-client dorve-doctor dorve-server dorve-unpair
