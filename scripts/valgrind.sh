#!/usr/bin/env bash
# Runs the whole-volume test programs (tests/volume, tests/mft,
# tests/filerecordmap, tests/tool) under Valgrind's memcheck and says whether
# they are clean: no invalid read or write, no use of uninitialised values, no
# definite or indirect leak. The kestrow processes the tool tests start are
# checked too (through the shell that starts them); the system tools under
# /usr (The Sleuth Kit, NTFS-3G) are not.
#
#   scripts/valgrind.sh [build-dir [program...]]
#
# The build directory defaults to <repo>/build-valgrind and is configured
# without sanitizers (memcheck and AddressSanitizer do not mix). The fixture
# images are built there by their CTest fixture when missing. Each program's
# report is <build-dir>/valgrind/<program>.<pid>.log. It is slow (tens of
# minutes): run it with nice. Exits 1 when any program is not clean.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-valgrind}
programs=(volume_tests volume_image_tests mft_fake_tests mft_image_tests filerecordmap_tests
          tool_tests)
if [ $# -gt 1 ]; then
  programs=("${@:2}")
fi

if ! command -v valgrind >/dev/null; then
  echo "valgrind.sh: valgrind is not installed (apt-get install valgrind)" >&2
  exit 2
fi

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKESTROW_SANITIZE=OFF -DKESTROW_BUILD_BENCH=OFF >/dev/null
fi
if grep -q '^KESTROW_SANITIZE:BOOL=ON' "$build/CMakeCache.txt"; then
  echo "valgrind.sh: $build is a sanitizer build; give a build without KESTROW_SANITIZE" >&2
  exit 2
fi
cmake --build "$build" --target "${programs[@]}" kestrow_tool kestrow_image_builder
# The images, made (or found up to date) by their CTest fixture.
ctest --test-dir "$build" -R '^build_fixture_images$' --output-on-failure >/dev/null

logs=$build/valgrind
rm -rf "$logs"
mkdir -p "$logs"
memcheck=(valgrind --tool=memcheck --leak-check=full --errors-for-leak-kinds=definite,indirect
          --show-leak-kinds=definite,indirect --error-exitcode=99 --num-callers=30
          --trace-children=yes --trace-children-skip='/usr/*,/sbin/*'
          --child-silent-after-fork=yes)

started=$(date +%s)
failed=0
for program in "${programs[@]}"; do
  path=$(find "$build/tests" -type f -name "$program" -perm -u+x | head -n 1)
  if [ -z "$path" ]; then
    echo "valgrind.sh: no $program in $build" >&2
    exit 2
  fi
  # An address-space limit means nothing under Valgrind, which lays out the
  # address space itself: the buffer-halving test under RLIMIT_AS is left out.
  filter='*'
  [ "$program" = mft_fake_tests ] && filter='-MftBufferSizingDeathTest.*'
  begin=$(date +%s)
  set +e
  "${memcheck[@]}" --log-file="$logs/$program.%p.log" "$path" --gtest_brief=1 \
    --gtest_filter="$filter" >"$logs/$program.out" 2>&1
  status=$?
  set -e
  seconds=$(( $(date +%s) - begin ))
  # Every process's summary: errors, and the definite and indirect leaks.
  reports=("$logs/$program".*.log)
  errors=$(awk '/ERROR SUMMARY:/ {s += $4} END {print s + 0}' "${reports[@]}")
  definite=$(awk '/definitely lost:/ {gsub(",", "", $4); s += $4} END {print s + 0}' "${reports[@]}")
  indirect=$(awk '/indirectly lost:/ {gsub(",", "", $4); s += $4} END {print s + 0}' "${reports[@]}")
  processes=${#reports[@]}
  if [ "$status" -eq 0 ] && [ "$errors" -eq 0 ]; then
    verdict=clean
  else
    verdict="NOT CLEAN (exit $status)"
    failed=1
  fi
  printf '%-22s %-20s %4d s  %3d process(es), %d error(s), %d bytes definitely and %d indirectly lost\n' \
    "$program" "$verdict" "$seconds" "$processes" "$errors" "$definite" "$indirect"
done
echo "total $(( $(date +%s) - started )) s; reports in $logs"
exit $failed
