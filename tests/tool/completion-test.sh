#!/usr/bin/env bash
# The bash completion offers kestrow's commands and options as its help
# lists them, files after --disk, and the volume letters of the disks named
# on the command line for a command's volume argument.
#   completion-test.sh KESTROW COMPLETION DISK-IMAGE
set -uo pipefail
PATH=$(dirname "$1"):$PATH
disk=$3
# shellcheck source=/dev/null
source "$2"
failures=0

# expect WANTED WORD...: what completing the last word offers.
expect() {
  local wanted=$1
  shift
  COMP_WORDS=("$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _kestrow
  if [ "${COMPREPLY[*]}" != "$wanted" ]; then
    echo "FAIL: '$*<TAB>' offers '${COMPREPLY[*]}', not '$wanted'"
    failures=$((failures + 1))
  fi
}

commands=$(kestrow --help | sed -n '/^commands:$/,/^$/s/^  \([a-z][a-z-]*\).*/\1/p' | tr '\n' ' ')
[ -n "$commands" ] || { echo "FAIL: kestrow --help lists no commands"; exit 1; }
expect "${commands}help" kestrow ""
expect "${commands% }" kestrow help ""
expect "info" kestrow --json in
expect "--disk" kestrow --json --di
expect "-V" kestrow --disk "$disk" -V
expect "--version" kestrow --ver
expect "$disk" kestrow --disk "${disk%.img}"
expect "C: D:" kestrow --disk "$disk" info ""
expect "C:" kestrow --disk "$disk" --json ls C
expect "" kestrow --disk "$disk" ls C: ""
expect "" kestrow --disk "$disk" volumes ""
expect "" kestrow --drive ""
[ "$failures" -eq 0 ] && echo "the completion offers the commands, options and volumes"
exit $((failures > 0))
