#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/*.cpp) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, replays the kept corpus of each and runs each
# for a bounded time.
#
#   scripts/run-fuzz.sh [--merge] [--only TARGET] [--sanitizers undefined]
#                       [seconds-per-target] [build-dir]
#
# Seconds default to 30; the build directory to <repo>/build-fuzz.
#
# --sanitizers undefined builds with UndefinedBehaviorSanitizer alone, into
# <repo>/build-fuzz-ubsan: several times the executions a second, without
# AddressSanitizer's checks of every access. It is there to accumulate
# executions in a campaign; what it keeps is replayed by every default
# (AddressSanitizer) run, CI's included, before that run fuzzes.
#
# Corpora. fuzz/corpus/<target> is the kept, minimised corpus in the
# repository. Every run first replays it (each input once: a regression
# check), then fuzzes a working corpus in <build-dir>/corpus/<target> that
# starts from the kept one plus fresh seeds cut from the NTFS fixture images
# ($KESTROW_FIXTURE_DIR, else <repo>/build/fixtures) by fuzz/make_seeds.py,
# and grows from run to run. With --merge the working corpus is minimised
# into the kept one (libFuzzer's -merge=1: only inputs that reach new
# coverage are kept) and the run is added to fuzz/campaign.tsv (or
# $KESTROW_FUZZ_RECORD), the record of the campaign: executions, edges and
# features reached, corpus size, and which build ran.
#
# The kept corpus has a budget: no input over its target's kept_max_len, and
# fuzz/corpus at most KESTROW_CORPUS_BUDGET_KB (default 8192) KiB in all as
# the repository stores it (compressed: the disk images are mostly zeros); a
# merge that would pass it fails and leaves the kept corpus as it was.
#
# Every target is given fuzz/dict/ntfs.dict, the NTFS structures' signatures,
# type codes and run-list headers. Exits non-zero when a target finds a
# crash, a leak, a hang or undefined behaviour (in the replay or the run);
# the reproducer is left in <build-dir>/findings.
set -euo pipefail

merge=0
only=""
sanitizers="address,undefined"
while [ $# -gt 0 ]; do
  case "$1" in
    --merge) merge=1; shift ;;
    --only) only="$2"; shift 2 ;;
    --sanitizers) sanitizers="$2"; shift 2 ;;
    --help | -h) sed -n '2,36p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) break ;;
  esac
done

# The build's name in the campaign record, and where it is built.
case "$sanitizers" in
  address,undefined) build_name="asan+ubsan" default_build=build-fuzz ;;
  undefined) build_name="ubsan" default_build=build-fuzz-ubsan ;;
  *) echo "run-fuzz.sh: --sanitizers takes address,undefined (the default) or undefined" >&2; exit 2 ;;
esac

seconds=${1:-30}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${2:-$root/$default_build}
fixtures=${KESTROW_FIXTURE_DIR:-$root/build/fixtures}
kept_root="$root/fuzz/corpus"
dictionary="$root/fuzz/dict/ntfs.dict"
record=${KESTROW_FUZZ_RECORD:-$root/fuzz/campaign.tsv}
budget_kb=${KESTROW_CORPUS_BUDGET_KB:-8192}

CC=${CC:-clang} CXX=${CXX:-clang++} cmake -S "$root" -B "$build" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTROW_BUILD_FUZZ=ON -DKESTROW_SANITIZE=ON \
  -DKESTROW_SANITIZERS="$sanitizers" \
  -DKESTROW_BUILD_TESTS=OFF -DKESTROW_BUILD_BENCH=OFF >/dev/null

targets=()
for source in "$root"/fuzz/*.cpp; do
  target="fuzz_$(basename "$source" .cpp)"
  if [ -z "$only" ] || [ "$only" = "$target" ] || [ "$only" = "${target#fuzz_}" ]; then
    targets+=("$target")
  fi
done
[ ${#targets[@]} -gt 0 ] || { echo "run-fuzz.sh: no target named $only" >&2; exit 2; }
cmake --build "$build" --parallel "${KESTROW_FUZZ_JOBS:-2}" --target "${targets[@]}"

# ---- Seeds ---------------------------------------------------------------------------

# fuzz/make_seeds.py cuts one seed directory per target out of the fixture
# images (records, run lists, index blocks, partition tables, boot sectors,
# compact volumes and disks). It needs The Sleuth Kit's icat and mmls.
seeds="$build/seeds"
rm -rf "$seeds"
mkdir -p "$seeds"
if [ -d "$fixtures" ]; then
  python3 "$root/fuzz/make_seeds.py" "$fixtures" "$seeds"
else
  echo "run-fuzz.sh: no fixture images in $fixtures; fuzzing from the kept corpus only"
fi

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

# The largest input the kept corpus holds. Disks and volumes are cut to their
# first 64 KiB there (boot sector, partition tables, the first records of a
# compact MFT): the inputs that grow from the seeds are mostly whole copies
# of them, and kept whole they would take tens of MiB.
kept_max_len() {
  case "$1" in
    fuzz_ntfs_volume | fuzz_disk_image_backend | fuzz_master_file_table) echo 65536 ;;
    *) max_len "$1" ;;
  esac
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# run_target TARGET ARGS...: the target with the options every run shares.
run_target() {
  local target=$1
  shift
  "$build/fuzz/$target" -max_len="$(max_len "$target")" -timeout=10 -rss_limit_mb=2048 \
    -dict="$dictionary" -artifact_prefix="$build/findings/$target-" "$@"
}

# stat LOG NAME: one of libFuzzer's final statistics (-print_final_stats=1).
stat() { sed -n "s/^stat::$2: *//p" "$1" | tail -n 1; }

# coverage LOG FIELD: the last "cov:" or "ft:" figure a run printed.
coverage() { grep -o "$2: [0-9]*" "$1" | tail -n 1 | awk '{print $2}'; }

# kib_of DIR: the bytes the files hold, in KiB (not the blocks they take on
# this file system).
kib_of() { du -s --apparent-size -k "$1" | awk '{print $1}'; }

# stored_kib DIR...: the files of the directories compressed as the
# repository stores them, in KiB.
stored_kib() {
  [ $# -gt 0 ] || { echo 0; return; }
  echo $(($(tar -cf - "$@" 2>/dev/null | gzip -6 | wc -c) / 1024))
}

# merge_into_kept TARGET: minimise the kept and the working corpus into a new
# kept corpus, within the budget. The fresh seeds go into the merge first and
# out of its result: every run makes them again from the fixture images, so
# the kept corpus holds only what reaches coverage beyond them (the seeds are
# whole compact volumes and disks, far larger than what grows from them).
merge_into_kept() {
  local target=$1 kept="$kept_root/${1#fuzz_}" corpus="$build/corpus/$1"
  local merged="$build/merged/${1#fuzz_}" seed
  rm -rf "$merged"
  mkdir -p "$merged" "$kept"
  if [ -d "$seeds/${1#fuzz_}" ]; then
    cp "$seeds/${1#fuzz_}"/* "$merged"/
  fi
  # A merge that stops half-way must not replace the kept corpus.
  if ! run_target "$target" -merge=1 -max_len="$(kept_max_len "$target")" "$merged" "$kept" "$corpus" \
    >"$build/logs/$target-merge.log" 2>&1; then
    tail -n 20 "$build/logs/$target-merge.log" >&2
    echo "!! $target: the merge failed; the kept corpus is as it was" >&2
    return 1
  fi
  if [ -d "$seeds/${1#fuzz_}" ]; then
    for seed in "$seeds/${1#fuzz_}"/*; do
      rm -f "$merged/$(basename "$seed")"
    done
  fi
  local others=() size total dir
  for dir in "$kept_root"/*/; do
    [ "$(basename "$dir")" = "${1#fuzz_}" ] || others+=("$dir")
  done
  size=$(stored_kib "$merged")
  total=$((size + $(stored_kib "${others[@]}")))
  if [ "$total" -gt "$budget_kb" ]; then
    echo "!! $target: the merged corpus (${size} KiB stored) would take fuzz/corpus to ${total} KiB, past ${budget_kb}; kept as it was" >&2
    return 1
  fi
  rm -rf "$kept"
  mv "$merged" "$kept"
}

# ---- Runs -------------------------------------------------------------------------------

mkdir -p "$build/findings" "$build/logs"
if [ "$merge" = 1 ] && [ ! -f "$record" ]; then
  printf 'date\tcommit\ttarget\tseconds\texecutions\tedges\tfeatures\tkept_inputs\tkept_kib\tfindings\tbuild\n' >"$record"
elif [ "$merge" = 1 ] && ! head -n 1 "$record" | grep -q $'\tbuild$'; then
  # A record from before the build column: all its runs were AddressSanitizer's.
  awk 'BEGIN {FS = OFS = "\t"} {print $0, (NR == 1 ? "build" : "asan+ubsan")}' "$record" >"$record.new"
  mv "$record.new" "$record"
fi
status=0
for target in "${targets[@]}"; do
  kept="$kept_root/${target#fuzz_}"
  corpus="$build/corpus/$target"
  mkdir -p "$corpus"

  # The kept corpus must replay clean: every input that once reached new
  # coverage still runs without a finding.
  if [ -d "$kept" ] && [ -n "$(ls -A "$kept")" ]; then
    echo "== $target: replaying $(ls "$kept" | wc -l) kept inputs"
    if ! run_target "$target" -runs=0 "$kept" >"$build/logs/$target-replay.log" 2>&1; then
      tail -n 30 "$build/logs/$target-replay.log" >&2
      echo "!! $target: the kept corpus does not replay clean; see $build/findings" >&2
      status=1
      continue
    fi
    cp -n "$kept"/* "$corpus"/ 2>/dev/null || true
  fi
  if [ -d "$seeds/${target#fuzz_}" ]; then
    cp -n "$seeds/${target#fuzz_}"/* "$corpus"/ 2>/dev/null || true
  fi

  echo "== $target: ${seconds}s, $(ls "$corpus" | wc -l) inputs in the corpus"
  log="$build/logs/$target-run.log"
  findings=0
  # One process per corpus: -reload=0 spares it re-reading (and hashing) its
  # own new inputs from the directory every second.
  if ! run_target "$target" -max_total_time="$seconds" -print_final_stats=1 -reload=0 "$corpus" \
    >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    echo "!! $target found a problem; see $build/findings" >&2
    findings=1
    status=1
  fi
  executions=$(stat "$log" number_of_executed_units)
  edges=$(coverage "$log" cov)
  features=$(coverage "$log" ft)
  echo "   $target: ${executions:-?} executions, ${edges:-?} edges, ${features:-?} features"

  # A run with a finding is recorded too, but nothing of it is merged: its
  # reproducer goes into the kept corpus with the fix.
  if [ "$merge" = 1 ]; then
    if [ "$findings" = 0 ]; then
      merge_into_kept "$target" || status=1
    fi
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$(date -u +%Y-%m-%dT%H:%MZ)" \
      "$(git -C "$root" rev-parse --short HEAD 2>/dev/null || echo -)" "${target#fuzz_}" \
      "$seconds" "${executions:-0}" "${edges:-0}" "${features:-0}" "$(ls "$kept" | wc -l)" \
      "$(kib_of "$kept")" "$findings" "$build_name" >>"$record"
  fi
done
exit $status
