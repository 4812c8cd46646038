#!/usr/bin/env bash
# Configures and builds as on a machine without the test packages: CMake is
# told not to find GoogleTest and Google Benchmark (nothing is uninstalled).
# The configure step must succeed with its one note on the parts left out,
# and the library and kestrow must build and run.
#
#   scripts/check-library-only.sh [build-dir]    (default <repo>/build-library-only)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-library-only}
rm -rf "$build"

configure=$(cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON 2>&1) || {
  echo "$configure" >&2
  echo "the library-only configure failed" >&2
  exit 1
}
notes=$(grep -c "building the library and kestrow without" <<<"$configure" || true)
if [ "$notes" != 1 ] || ! grep -q "the tests: GoogleTest" <<<"$configure" ||
  ! grep -q "the benchmarks: Google Benchmark" <<<"$configure"; then
  echo "$configure" >&2
  echo "expected one note naming the tests and the benchmarks" >&2
  exit 1
fi
sed -n '/building the library and kestrow without/,/leave them out/p' <<<"$configure"

cmake --build "$build" --target kestrow_tool
"$build/tools/kestrow" --version
