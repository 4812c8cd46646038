#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/*.cpp) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs each of them for a bounded time.
#
#   scripts/run-fuzz.sh [seconds-per-target] [build-dir]
#
# Seconds default to 35; the build directory to <repo>/build-fuzz. The corpus
# of each target lives in <build-dir>/corpus/<target> and grows from run to
# run. An empty corpus is seeded with pieces of the NTFS fixture images
# ($KESTROW_FIXTURE_DIR, else <repo>/build/fixtures), cut by fuzz/make_seeds.py.
# Exits non-zero when a target finds a crash, a leak or undefined behaviour;
# the reproducer is left in <build-dir>/findings.
set -euo pipefail

seconds=${1:-35}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${2:-$root/build-fuzz}
fixtures=${KESTROW_FIXTURE_DIR:-$root/build/fixtures}

CC=${CC:-clang} CXX=${CXX:-clang++} cmake -S "$root" -B "$build" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTROW_BUILD_FUZZ=ON -DKESTROW_SANITIZE=ON \
  -DKESTROW_BUILD_TESTS=OFF -DKESTROW_BUILD_BENCH=OFF >/dev/null

targets=()
for source in "$root"/fuzz/*.cpp; do
  targets+=("fuzz_$(basename "$source" .cpp)")
done
cmake --build "$build" --target "${targets[@]}"

# ---- Seeds ---------------------------------------------------------------------------

# fuzz/make_seeds.py cuts one seed directory per target out of the fixture
# images (records, run lists, index blocks, partition tables, boot sectors,
# compact volumes and disks). It needs The Sleuth Kit's icat and mmls.
seeds="$build/seeds"
rm -rf "$seeds"
mkdir -p "$seeds"
python3 "$root/fuzz/make_seeds.py" "$fixtures" "$seeds"

# The largest input each target is given: room for its biggest seed.
max_len() {
  case "$1" in
    fuzz_filerecord_parse | fuzz_record_reader) echo 8192 ;;
    fuzz_runlist_decode) echo 4096 ;;
    fuzz_indx_postprocess) echo 131072 ;;
    fuzz_partition_table | fuzz_boot_sector) echo 262144 ;;
    *) echo 1048576 ;;
  esac
}

# ---- Runs -------------------------------------------------------------------------------

mkdir -p "$build/findings"
status=0
for target in "${targets[@]}"; do
  corpus="$build/corpus/$target"
  mkdir -p "$corpus"
  if [ -z "$(ls -A "$corpus")" ]; then
    if [ -d "$seeds/${target#fuzz_}" ]; then
      cp "$seeds/${target#fuzz_}"/* "$corpus"/
    fi
  fi
  echo "== $target: ${seconds}s, $(ls "$corpus" | wc -l) inputs in the corpus"
  if ! ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
      UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      "$build/fuzz/$target" -max_total_time="$seconds" -max_len="$(max_len "$target")" -timeout=10 \
      -rss_limit_mb=2048 -artifact_prefix="$build/findings/$target-" -print_final_stats=1 \
      "$corpus"; then
    echo "!! $target found a problem; see $build/findings" >&2
    status=1
  fi
done
exit $status
