#!/usr/bin/env bash
# Lists the tests the last CTest run in a build directory skipped, each with
# the reason it printed, and fails when one of them skipped for any other
# reason than a missing capability of the machine.
#
#   scripts/skipped-tests.sh [<build dir>]      (default: build)
#
# The convention: a test that cannot run here skips with a reason that starts
# with "needs: " and names what the machine lacks, for example
#   GTEST_SKIP() << "needs: a loop device (root and /dev/loop-control)";
# A case that does not apply to its parameters is not a skip: leave it out of
# the instantiation. A suite whose SetUpTestSuite() throws or asserts makes
# GoogleTest skip its tests without a reason; that is reported here too.
set -euo pipefail

build=${1:-build}
log="$build/Testing/Temporary/LastTest.log"
if [ ! -f "$log" ]; then
  echo "skipped-tests: no $log; run ctest in $build first" >&2
  exit 1
fi

# LastTest.log holds each test's block: "N/M Test: <name>" (a parameterised
# GoogleTest case adds "  # GetParam() = ..."), its output, and how CTest
# judged it; a GoogleTest skip passes by the skip pattern that
# gtest_discover_tests sets. GoogleTest prints a skip as
# "<file>:<line>: Skipped" followed by the message's first line. A test run
# more than once (ctest --repeat) is listed once per skipped run.
awk '
  /^[0-9]+\/[0-9]+ Test: / {
    name = $0; sub(/^[0-9]+\/[0-9]+ Test: /, "", name); sub(/  # .*$/, "", name)
    reason = ""; next_is_reason = 0; next
  }
  next_is_reason { if (reason == "") reason = $0; next_is_reason = 0; next }
  /: Skipped$/ { next_is_reason = 1; next }
  /^Skip regular expression found in output|^Test Skipped/ { print name "\t" reason }
' "$log" | {
  total=0
  unexplained=0
  lines=""
  while IFS=$'\t' read -r name reason; do
    total=$((total + 1))
    if [[ "$reason" == "needs: "* ]]; then
      lines+="  $name: $reason"$'\n'
    else
      unexplained=$((unexplained + 1))
      lines+="  $name: ${reason:-(no reason printed)}  <-- not a missing capability"$'\n'
    fi
  done
  if [ "$total" -eq 0 ]; then
    echo "== No test skipped ($build)"
    exit 0
  fi
  echo "== Skipped tests ($build): $total"
  printf '%s' "$lines"
  if [ "$unexplained" -ne 0 ]; then
    echo "skipped-tests: $unexplained skipped without a \"needs: \" reason naming what the machine lacks" >&2
    exit 1
  fi
}
