#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/*.cpp) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs each of them for a bounded time.
#
#   scripts/run-fuzz.sh [seconds-per-target] [build-dir]
#
# Seconds default to 60; the build directory to <repo>/build-fuzz. The corpus
# of each target lives in <build-dir>/corpus/<target> and grows from run to
# run. The FILE record targets are seeded with the records of the NTFS fixture
# images when these exist ($KESTROW_FIXTURE_DIR, else <repo>/build/fixtures).
# Exits non-zero when a target finds a crash, a leak or undefined behaviour;
# the reproducer is left in <build-dir>/findings.
set -euo pipefail

seconds=${1:-60}
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

# ---- Seeds from the fixture images ------------------------------------------------

# One seed per in-use MFT record of the NTFS volume at sector `offset` of
# `image`, prefixed with the volume's geometry as filerecord_parse reads it.
seed_records() {
  local image=$1 offset=$2 out=$3 name=$4
  local stats sector cluster last recsize
  stats=$(fsstat -f ntfs -o "$offset" "$image" 2>/dev/null) || return 0
  sector=$(awk '/^Sector Size:/ {print $3; exit}' <<<"$stats")
  cluster=$(awk '/^Cluster Size:/ {print $3; exit}' <<<"$stats")
  last=$(awk '/^Total Cluster Range:/ {print $NF; exit}' <<<"$stats")
  recsize=$(awk '/^Size of MFT Entries:/ {print $5; exit}' <<<"$stats")
  [ -n "$sector" ] && [ -n "$cluster" ] && [ -n "$recsize" ] || return 0

  # Byte 0: bit 0 for 4096-byte sectors, bits 1-3 the sectors-per-cluster
  # choice, bit 4 for 4096-byte records. Bytes 1-4 total clusters, 5-8 the
  # volume's first cluster on the disk.
  local spc=$((cluster / sector)) choice=0 i=0
  for s in 8 1 2 4 16 32 64 128; do
    [ "$s" -eq "$spc" ] && choice=$i
    i=$((i + 1))
  done
  local flags=$(((sector == 4096 ? 1 : 0) | (choice << 1) | (recsize == 4096 ? 16 : 0)))
  local total=$((last + 1)) first=$((offset * 512 / cluster))
  local prefix
  prefix=$(printf '\\x%02x\\x%02x\\x%02x\\x%02x\\x%02x\\x%02x\\x%02x\\x%02x\\x%02x' \
    "$flags" $((total & 255)) $((total >> 8 & 255)) $((total >> 16 & 255)) $((total >> 24 & 255)) \
    $((first & 255)) $((first >> 8 & 255)) $((first >> 16 & 255)) $((first >> 24 & 255)))

  local work
  work=$(mktemp -d)
  if icat -f ntfs -o "$offset" "$image" 0 >"$work/mft" 2>/dev/null; then
    split -b "$recsize" -d -a 6 "$work/mft" "$work/record-"
    local record
    for record in "$work"/record-*; do
      if [ "$(head -c 4 "$record")" = "FILE" ]; then
        { printf "$prefix"; cat "$record"; } >"$out/$name-${record##*-}"
      fi
    done
  fi
  rm -rf "$work"
}

seed_from_fixtures() {
  local out=$1 image base
  [ -d "$fixtures" ] || return 0
  for image in "$fixtures"/*.img; do
    [ -e "$image" ] || continue
    base=$(basename "$image" .img)
    if fsstat -f ntfs "$image" >/dev/null 2>&1; then
      seed_records "$image" 0 "$out" "$base"
    else
      # A whole disk: every partition that holds NTFS.
      mmls "$image" 2>/dev/null | awk '$2 ~ /^[0-9]/ {print $3 + 0}' | while read -r start; do
        seed_records "$image" "$start" "$out" "$base-$start"
      done
    fi
  done
}

# Hand-made seeds of the run-list decoder: diagnostics on, maxClusters 2^20,
# then run bytes (a plain run, a sparse run, a negative offset).
seed_run_lists() {
  local out=$1
  printf '\x01\x00\x00\x10\x00\x00\x00\x00\x00\x21\x18\x34\x56\x00' >"$out/one-run"
  printf '\x01\x00\x00\x10\x00\x00\x00\x00\x00\x01\x10\x21\x08\x00\x20\x00' >"$out/sparse"
  printf '\x01\x00\x00\x10\x00\x00\x00\x00\x00\x21\x10\x00\x10\x11\x08\xf0\x00' >"$out/negative"
}

# ---- Runs -------------------------------------------------------------------------------

mkdir -p "$build/findings"
status=0
for target in "${targets[@]}"; do
  corpus="$build/corpus/$target"
  mkdir -p "$corpus"
  if [ -z "$(ls -A "$corpus")" ]; then
    case "$target" in
      fuzz_filerecord*) seed_from_fixtures "$corpus" ;;
      fuzz_runlist*) seed_run_lists "$corpus" ;;
    esac
  fi
  echo "== $target: ${seconds}s, $(ls "$corpus" | wc -l) inputs in the corpus"
  if ! ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
      UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      "$build/fuzz/$target" -max_total_time="$seconds" -max_len=8192 -timeout=10 \
      -rss_limit_mb=2048 -artifact_prefix="$build/findings/$target-" -print_final_stats=1 \
      "$corpus"; then
    echo "!! $target found a problem; see $build/findings" >&2
    status=1
  fi
done
exit $status
