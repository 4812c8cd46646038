#!/usr/bin/env bash
# The benchmarks in one run, printed as one table.
#
# On "realistic tree" NTFS volumes of about 100 000 and 1 000 000 files (made
# once by the test image builder and kept in a cache outside the source tree),
# each workload runs as a whole process, interleaved with its counterpart from
# The Sleuth Kit or NTFS-3G, several times with the image in the page cache;
# the median wall time is reported:
#   every in-use record with its full path   kestrow paths   / fls -r -p, ntfsls -R
#   owner of a cluster nobody owns            kestrow owner   / ifind -d
#   the volume's used clusters                kestrow bitmap  / blkls -a -l
#   a bodyfile of every file                  kestrow timeline / fls -r -m
# and, in process (bench_mft_record_map), buildRecordMap's record rate beside
# the floor: the MFT's runs read with pread into one reused buffer, in the
# record buffer's chunks, nothing parsed. Every kestrow command's page
# faults and system time are shown with its time; memory is the peak resident
# size of `kestrow paths` beyond that of `kestrow info` (which opens the
# volume and sizes the record buffer), per record. The cost of one fresh page
# on the machine (bench_page_fault_cost) is printed with the table, so that
# tables from different machines can be compared. Before timing, the outputs
# are checked against each other (path sets, the free cluster's owner, the
# used-cluster list); differences are reported.
#
#   bench/run.sh                  100k and 1M images, 5 runs each
#   bench/run.sh --quick          100k image, 1 run each (CI: keeps it working)
#   bench/run.sh --huge           also a 10M-file image (about 20 GB sparse and
#                                 half an hour to build once; not run by CI)
#   bench/run.sh --markdown       the table as Markdown on stdout
#   bench/run.sh --update-readme  also puts that table into README.md, between
#                                 its bench-table markers
#
# Options: --runs N, --sizes "100k 1m" (any N, Nk or Nm files), --build DIR
# (default build-bench; configured Release when new, otherwise built as it
# is), --images DIR (default $KESTROW_BENCH_IMAGES, else
# ${XDG_CACHE_HOME:-$HOME/.cache}/kestrow/bench-images). Nothing here writes to
# an image once it is built: every tool opens it read-only.
set -euo pipefail
export LC_ALL=C

ROOT=$(cd "$(dirname "$0")/.." && pwd)

usage() {
    sed -n '2,/^set -euo/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'
    exit "${1:-0}"
}

QUICK=0
HUGE=0
MARKDOWN=0
UPDATE_README=0
RUNS=""
SIZES=""
BUILD="${KESTROW_BENCH_BUILD:-}"
IMAGES="${KESTROW_BENCH_IMAGES:-}"
while [ $# -gt 0 ]; do
    case "$1" in
    --quick) QUICK=1 ;;
    --huge) HUGE=1 ;;
    --markdown) MARKDOWN=1 ;;
    --update-readme) UPDATE_README=1 ;;
    --runs) RUNS="${2:?--runs needs a number}"; shift ;;
    --runs=*) RUNS="${1#*=}" ;;
    --sizes) SIZES="${2:?--sizes needs a list}"; shift ;;
    --sizes=*) SIZES="${1#*=}" ;;
    --build) BUILD="${2:?--build needs a directory}"; shift ;;
    --build=*) BUILD="${1#*=}" ;;
    --images) IMAGES="${2:?--images needs a directory}"; shift ;;
    --images=*) IMAGES="${1#*=}" ;;
    -h | --help) usage 0 ;;
    *) echo "run.sh: unknown option: $1" >&2; usage 2 >&2 ;;
    esac
    shift
done
if [ "$QUICK" = 1 ]; then
    SIZES="${SIZES:-100k}"
    RUNS="${RUNS:-1}"
else
    SIZES="${SIZES:-100k 1m}"
    RUNS="${RUNS:-5}"
fi
[ "$HUGE" = 0 ] || SIZES="$SIZES 10m"
case "$RUNS" in '' | *[!0-9]* | 0) echo "run.sh: --runs wants a positive number" >&2; exit 2 ;; esac
BUILD="${BUILD:-$ROOT/build-bench}"
case "$BUILD" in /*) ;; *) BUILD="$PWD/$BUILD" ;; esac
IMAGES="${IMAGES:-${XDG_CACHE_HOME:-$HOME/.cache}/kestrow/bench-images}"
JOBS="${JOBS:-$(nproc 2>/dev/null || echo 2)}"

say() { echo "run.sh: $*" >&2; }
die() { echo "run.sh: $*" >&2; exit 1; }

# ---- tools and build ------------------------------------------------------------

missing=()
for tool in cmake ninja fls ifind blkls ntfsls sha256sum; do
    command -v "$tool" >/dev/null 2>&1 || missing+=("$tool")
done
[ -x /usr/bin/time ] || missing+=(/usr/bin/time)
[ -n "${EPOCHREALTIME:-}" ] || missing+=("bash 5 (EPOCHREALTIME)")
[ ${#missing[@]} -eq 0 ] ||
    die "missing: ${missing[*]} (scripts/install-deps.sh installs them: sleuthkit, ntfs-3g, time, ...)"

if [ ! -f "$BUILD/CMakeCache.txt" ]; then
    say "configuring $BUILD (Release)"
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKESTROW_BUILD_BENCH=ON \
        -DKESTROW_BUILD_TESTS=ON "-DKESTROW_BENCH_IMAGE_DIR=$IMAGES" >&2
fi
say "building kestrow, the image builder, bench_mft_record_map and bench_page_fault_cost in $BUILD"
cmake --build "$BUILD" -j "$JOBS" --target kestrow_tool kestrow_image_builder bench_mft_record_map \
    bench_page_fault_cost >&2
BUILD_TYPE=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
KESTROW="$BUILD/tools/kestrow"
BUILDER="$BUILD/tests/images/kestrow_image_builder"
RECORD_MAP_BENCH="$BUILD/bench/bench_mft_record_map"
PAGE_FAULT_BENCH="$BUILD/bench/bench_page_fault_cost"
for program in "$KESTROW" "$BUILDER" "$RECORD_MAP_BENCH" "$PAGE_FAULT_BENCH"; do
    [ -x "$program" ] || die "not built: $program"
done

RESULTS="$BUILD/bench-results/$(date -u +%Y%m%dT%H%M%SZ)"
mkdir -p "$RESULTS" "$IMAGES"

# ---- images ---------------------------------------------------------------------

file_count() {
    case "$1" in
    *[kK]) echo $((${1%?} * 1000)) ;;
    *[mM]) echo $((${1%?} * 1000000)) ;;
    *) echo "$1" ;;
    esac
}

# What the tree images are made from: a cached image is rebuilt when this
# changes (the same count always gives the same tree from the same sources).
image_source_stamp() {
    {
        cat "$ROOT"/tests/images/TreeImage.cpp "$ROOT"/tests/images/NtfsWriter.cpp \
            "$ROOT"/tests/images/Tools.cpp "$ROOT"/tests/images/ImageBuilder.h \
            "$ROOT"/tests/images/NtfsLibrary.h
        dpkg-query -W -f='${Version}\n' ntfs-3g 2>/dev/null || true
    } | sha256sum | cut -c1-16
}

# Prints the image path; builds it when missing or made from other sources.
ensure_image() {
    local size=$1 count image stamp
    count=$(file_count "$size")
    case "$count" in '' | *[!0-9]* | 0) die "not a file count: $size" ;; esac
    image="$IMAGES/tree-$size.img"
    stamp=$(image_source_stamp)
    if [ -f "$image" ] && [ "$(cat "$image.source" 2>/dev/null)" = "$stamp" ]; then
        say "reusing $image"
    else
        say "building $image ($count files; the 1M image takes a minute or more)"
        rm -f "$image" "$image.source"
        "$BUILDER" tree "$image" "$count" >&2
        echo "$stamp" >"$image.source"
    fi
    echo "$image"
}

# ---- timing ---------------------------------------------------------------------

# Microseconds from two $EPOCHREALTIME readings ("seconds.micros").
elapsed_us() {
    echo $(((10#${2%.*} - 10#${1%.*}) * 1000000 + 10#${2#*.} - 10#${1#*.}))
}

# The CPU time (user + system) of this shell's finished children, in
# microseconds, from the `times` builtin (no subprocess: a subshell would
# report its own children).
CHILDREN_CPU_US=0
read_children_cpu() {
    local own_user own_system user system
    times >"$RESULTS/times.now"
    { read -r own_user own_system && read -r user system; } <"$RESULTS/times.now"
    CHILDREN_CPU_US=$(($(minutes_seconds_us "$user") + $(minutes_seconds_us "$system")))
}
minutes_seconds_us() { # "1m2.345s" -> microseconds
    local minutes=${1%%m*} seconds=${1#*m}
    seconds=${seconds%s}
    local whole=${seconds%.*} fraction=${seconds#*.}000000
    echo $(((10#$minutes * 60 + 10#$whole) * 1000000 + 10#${fraction:0:6}))
}

# measure FILE FUNCTION...: one warm-up run of each, then RUNS rounds in which
# every function runs once, in turn, so that a change of machine load hits
# all of them alike. Appends "function wall-microseconds cpu-microseconds"
# lines to FILE.
measure() {
    local file=$1 f round t0 t1 cpu0
    shift
    for f in "$@"; do
        "$f" >/dev/null 2>"$RESULTS/stderr.txt" || die "$f failed: $(tail -3 "$RESULTS/stderr.txt")"
    done
    for ((round = 1; round <= RUNS; round++)); do
        for f in "$@"; do
            read_children_cpu
            cpu0=$CHILDREN_CPU_US
            t0=$EPOCHREALTIME
            "$f" >/dev/null 2>"$RESULTS/stderr.txt" || die "$f failed: $(tail -3 "$RESULTS/stderr.txt")"
            t1=$EPOCHREALTIME
            read_children_cpu
            echo "$f $(elapsed_us "$t0" "$t1") $((CHILDREN_CPU_US - cpu0))" >>"$file"
        done
    done
}

# median FILE FUNCTION [COLUMN]: the median time in seconds (column 2, wall
# time; 3, CPU time).
median() {
    awk -v f="$2" -v c="${3:-2}" '$1 == f { print $c }' "$1" | sort -n |
        awk '{ v[NR] = $1 } END {
            if (NR == 0) { print "nan"; exit }
            m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
            printf "%.6f\n", m / 1e6 }'
}

spread() {
    awk -v f="$2" '$1 == f { print $2 }' "$1" | sort -n |
        awk '{ v[NR] = $1 } END { if (NR) printf "%.3f..%.3f s", v[1] / 1e6, v[NR] / 1e6 }'
}

# ---- the workloads (IMG is the image under test) ----------------------------------

kestrow_paths() { "$KESTROW" --disk "$IMG" paths C:; }
fls_paths() { fls -r -p "$IMG"; }
ntfsls_paths() { ntfsls -R "$IMG"; }
kestrow_owner() { "$KESTROW" --disk "$IMG" owner C: "$FREE_CLUSTER"; }
ifind_owner() { ifind -d "$FREE_CLUSTER" "$IMG"; }
kestrow_bitmap() { "$KESTROW" --disk "$IMG" bitmap C:; }
blkls_used() { blkls -a -l "$IMG"; }

# resources FILE NAME ARGS...: one more run of `kestrow ARGS` on the image
# under /usr/bin/time; appends "NAME minor-page-faults system-seconds
# peak-resident-KiB" to FILE.
resources() {
    local file=$1 name=$2
    shift 2
    /usr/bin/time -f "$name %R %S %M" -a -o "$file" "$KESTROW" --disk "$IMG" "$@" >/dev/null
}
# resource FILE NAME COLUMN: 2 faults, 3 system seconds, 4 peak KiB.
resource() { awk -v n="$2" -v c="$3" '$1 == n { v = $c } END { print v }' "$1"; }
# "1234 faults, sys 5 ms" for a command of FILE.
fault_text() {
    awk -v f="$(resource "$1" "$2" 2)" -v s="$(resource "$1" "$2" 3)" \
        'BEGIN { printf "%d faults, sys %.0f ms\n", f, s * 1000 }'
}
# ---- output normalisation for the checks ----------------------------------------

# kestrow paths: \\.\C:\a\b -> a/b; the root (the volume path alone) is left
# out, as fls and ntfsls do not list it. A walk that broke off gives a path
# without the volume prefix: kept, marked "?".
normalise_kestrow() {
    P='\\.\C:\' awk '{
        p = ENVIRON["P"]
        if (index($0, p) == 1) {
            rest = substr($0, length(p) + 1)
            if (rest == "") next
        } else rest = "?" $0
        gsub(/\\/, "/", rest)
        print rest
    }' "$1" | sort -u
}

# fls -r -p: "r/r 64-128-2:<TAB>dir/name[:stream]". Deleted entries ("*") and
# the virtual $OrphanFiles directory are not in-use records; a named stream
# is the same record as its file.
normalise_fls() {
    awk -F '\t' '{
        if ($1 ~ / \* / || $1 ~ /^V\/V/) next
        path = $2
        if (path ~ /^\$OrphanFiles(\/|$)/) next
        n = split(path, part, "/")
        sub(/:.*/, "", part[n])
        out = part[1]
        for (i = 2; i <= n; i++) out = out "/" part[i]
        print out
    }' "$1" | sort -u
}

# ntfsls -R: blocks of "/dir:" then the names in it, a blank line between
# blocks; "." and ".." are not records of their own.
normalise_ntfsls() {
    awk '
        /^$/ { header = 1; next }
        NR == 1 || header { dir = $0; sub(/:$/, "", dir); sub(/^\//, "", dir); header = 0; next }
        $0 == "." || $0 == ".." { next }
        { print (dir == "" ? $0 : dir "/" $0) }
    ' "$1" | sort -u
}

# The shape of the tree, from fls's listing (its "d/d" lines mark directories).
tree_shape() {
    awk -F '\t' '
        $1 ~ / \* / || $1 ~ /^V\/V/ || $2 ~ /^\$/ || $2 ~ /:/ { next }
        {
            path = $2; n = split(path, part, "/")
            parent = n == 1 ? "" : substr(path, 1, length(path) - length(part[n]) - 1)
            children[parent]++
            if ($1 ~ /^d/) { dirs++; isdir[path] = 1 } else files++
            if (n > maxdepth) maxdepth = n
            depth += n
        }
        END {
            children[""] += 0
            for (d in isdir) children[d] += 0
            for (d in children) {
                c = children[d]; count++
                if (c >= 1000) big++
                if (c <= 16) small++
                if (c > top1) { top3 = top2; top2 = top1; top1 = c }
                else if (c > top2) { top3 = top2; top2 = c }
                else if (c > top3) top3 = c
            }
            printf "%d files in %d directories (+ the root); depth up to %d, mean %.1f; ", files, dirs, maxdepth, depth / (files + dirs)
            printf "%d%% of directories hold <= 16 entries, %d hold >= 1000; the largest hold %d, %d, %d\n", 100 * small / count, big, top1, top2, top3
        }' "$1"
}

# The roots of the subtrees that a sorted list of paths forms (an entry whose
# parent is not in the list), with the entries below each; the largest first.
subtree_roots() {
    awk '
        { seen[$0] = 1; line[NR] = $0 }
        END {
            for (i = 1; i <= NR; i++) {
                p = line[i]
                while ((k = match(p, /\/[^\/]*$/)) && (substr(p, 1, k - 1) in seen)) p = substr(p, 1, k - 1)
                size[p]++
            }
            for (r in size) roots++
            printf "%d root(s)", roots
            for (shown = 0; shown < 4 && roots > shown; shown++) {
                best = ""; for (r in size) if (best == "" || size[r] > size[best]) best = r
                printf "%s %s (%d)", shown ? "," : ":", best, size[best]; delete size[best]
            }
            print ""
        }' "$1"
}

json_number() { sed -n "s/.*\"$1\": \([0-9][0-9]*\).*/\1/p;T;q" "$2"; }

# Google Benchmark JSON: the median aggregate when there are repetitions, the
# single run otherwise. Prints "real_time_ms items_per_second [chunkBytes]".
bench_figures() {
    awk -v want="$2" '
        /"name":/ { name = $0; sub(/.*"name": "/, "", name); sub(/".*/, "", name) }
        /"real_time":/ { rt = $2; sub(/,/, "", rt) }
        /"items_per_second":/ { ips = $2; sub(/,/, "", ips) }
        /"chunkBytes":/ { cb = $2; sub(/,/, "", cb) }
        /^    }/ {
            if (name == want "/real_time_median") { med = rt " " ips " " cb }
            else if (name == want "/real_time" && one == "") { one = rt " " ips " " cb }
            name = ""; rt = ""; ips = ""; cb = ""
        }
        END { print (med != "" ? med : one) }' "$1"
}

# ---- one image ------------------------------------------------------------------

ROWS="$RESULTS/rows.tsv"
CHECKS="$RESULTS/checks.txt"
: >"$ROWS"
: >"$CHECKS"

row() { printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$@" >>"$ROWS"; }
check() { echo "$*" >>"$CHECKS"; say "$*"; }

ratio_text() { # counterpart / ours as "N.Nx faster" or "N.Nx slower"
    awk -v ours="$1" -v theirs="$2" 'BEGIN {
        if (ours <= 0 || theirs <= 0) { print "n/a"; exit }
        r = theirs / ours
        if (r >= 1) printf "%.1fx faster\n", r; else printf "%.1fx slower\n", 1 / r }'
}
at_least() { awk -v a="$1" -v b="$2" 'BEGIN { print (a >= b ? "met" : "missed") }'; }
secs() { awk -v s="$1" 'BEGIN { if (s < 1) printf "%.0f ms\n", s * 1000; else printf "%.2f s\n", s }'; }

bench_image() {
    local size=$1
    IMG=$(ensure_image "$size")
    local out="$RESULTS/$size"
    mkdir -p "$out"
    say "== $size: $IMG"
    cat "$IMG" >/dev/null # into the page cache

    "$KESTROW" --disk "$IMG" --json info C: >"$out/info.json"
    local slots buffer bytes_per_cluster
    slots=$(json_number recordSlots "$out/info.json")
    buffer=$(json_number bufferBytes "$out/info.json")
    bytes_per_cluster=$(json_number bytesPerCluster "$out/info.json")

    # -- checks: the three listings agree?
    /usr/bin/time -f '%e %M' -o "$out/kestrow-paths.rss" "$KESTROW" --disk "$IMG" paths C: >"$out/kestrow-paths.txt"
    /usr/bin/time -f '%e %M' -o "$out/fls.rss" fls -r -p "$IMG" >"$out/fls.txt"
    /usr/bin/time -f '%e %M' -o "$out/ntfsls.rss" ntfsls -R "$IMG" >"$out/ntfsls.txt" 2>"$out/ntfsls.err"
    normalise_kestrow "$out/kestrow-paths.txt" >"$out/k.set"
    normalise_fls "$out/fls.txt" >"$out/f.set"
    normalise_ntfsls "$out/ntfsls.txt" >"$out/n.set"
    local records kn fn nn common konly fonly
    records=$(wc -l <"$out/kestrow-paths.txt")
    kn=$(wc -l <"$out/k.set")
    fn=$(wc -l <"$out/f.set")
    nn=$(wc -l <"$out/n.set")
    comm -23 "$out/k.set" "$out/f.set" >"$out/only-kestrow-vs-fls"
    comm -13 "$out/k.set" "$out/f.set" >"$out/only-fls"
    common=$(comm -12 "$out/k.set" "$out/f.set" | wc -l)
    konly=$(wc -l <"$out/only-kestrow-vs-fls")
    fonly=$(wc -l <"$out/only-fls")
    check "$size tree: $(tree_shape "$out/fls.txt")"
    check "$size paths: kestrow $records in-use records ($kn distinct paths without the root), fls -r -p $fn distinct paths (deleted, orphan and stream entries folded), $common in both"
    check "$size paths: only kestrow: $konly, only fls: $fonly"
    # Records without a $FILE_NAME (extension records, the reserved records
    # 12-15) have no name of their own: their walk gives "$MFT\" (parent 0).
    local unnamed
    unnamed=$(grep -c '^\\\\\.\\C:\\\$MFT\\$' "$out/kestrow-paths.txt" || true)
    check "$size paths: kestrow records without a name of their own (listed as '\$MFT\\'): $unnamed"
    check "$size paths: the differences as subtrees, kestrow side: $(subtree_roots "$out/only-kestrow-vs-fls")"
    check "$size paths: the differences as subtrees, fls side: $(subtree_roots "$out/only-fls")"
    # ntfsls -R walks the directory indexes and leaves out the system files
    # ($MFT, $Extend\...): compare it with kestrow's paths outside them.
    grep -v '^\$' "$out/k.set" >"$out/k-user.set" || true
    local kun nonly kuonly
    kun=$(wc -l <"$out/k-user.set")
    nonly=$(comm -13 "$out/k-user.set" "$out/n.set" | wc -l)
    kuonly=$(comm -23 "$out/k-user.set" "$out/n.set" | wc -l)
    grep -v '^\$' "$out/f.set" >"$out/f-user.set" || true
    local fnonly nfonly
    fnonly=$(comm -23 "$out/f-user.set" "$out/n.set" | wc -l)
    nfonly=$(comm -13 "$out/f-user.set" "$out/n.set" | wc -l)
    check "$size paths: ntfsls -R $nn paths (no system files); against kestrow without the \$ system files ($kun): only ntfsls $nonly, only kestrow $kuonly; against fls without them: only fls $fnonly, only ntfsls $nfonly"

    # -- a cluster nobody owns: the middle of the largest free gap.
    "$KESTROW" --disk "$IMG" bitmap C: >"$out/bitmap.txt"
    local total
    total=$(sed -n 's/^C: \([0-9]*\) clusters.*/\1/p' "$out/bitmap.txt")
    FREE_CLUSTER=$(awk -v total="$total" '
        /^   [0-9]+-[0-9]+ / { split($1, r, "-"); if (r[1] - next_free > best) { best = r[1] - next_free; at = next_free }
                               next_free = r[2] + 1 }
        END { if (total - next_free > best) { best = total - next_free; at = next_free }
              if (best > 0) print at + int(best / 2) }' "$out/bitmap.txt")
    [ -n "$FREE_CLUSTER" ] || die "$size: the volume has no free cluster"
    kestrow_owner >"$out/owner.txt"
    ifind_owner >"$out/ifind.txt"
    check "$size owner of free cluster $FREE_CLUSTER: kestrow: $(sed -n 's/.*): //p' "$out/owner.txt" | head -1); ifind -d: $(head -1 "$out/ifind.txt")"
    grep -q 'no owner' "$out/owner.txt" || check "$size WARNING: kestrow names an owner for a free cluster"

    # -- the used-cluster lists agree?
    blkls_used >"$out/blkls.txt"
    awk '/^   [0-9]+-[0-9]+ / { split($1, r, "-"); for (c = r[1]; c <= r[2]; c++) print c }' "$out/bitmap.txt" >"$out/used.kestrow"
    awk -F '|' 'NR > 3 && $2 == "a" { print $1 }' "$out/blkls.txt" >"$out/used.blkls"
    if cmp -s "$out/used.kestrow" "$out/used.blkls"; then
        check "$size used clusters: kestrow bitmap and blkls -a -l list the same $(wc -l <"$out/used.kestrow") clusters"
    else
        check "$size used clusters DIFFER: kestrow $(wc -l <"$out/used.kestrow"), blkls $(wc -l <"$out/used.blkls") (see $out/used.*)"
    fi

    # -- timed runs
    say "$size: timing paths (kestrow, fls, ntfsls), $RUNS round(s)"
    measure "$out/times" kestrow_paths fls_paths ntfsls_paths
    say "$size: timing the owner of cluster $FREE_CLUSTER (kestrow, ifind)"
    measure "$out/times" kestrow_owner ifind_owner
    say "$size: timing the used clusters (kestrow bitmap, blkls)"
    measure "$out/times" kestrow_bitmap blkls_used

    # -- page faults, system time and peak memory of each kestrow command
    local res="$out/resources"
    : >"$res"
    resources "$res" volumes volumes
    resources "$res" info info C:
    resources "$res" paths paths C:
    resources "$res" owner owner C: "$FREE_CLUSTER"
    resources "$res" bitmap bitmap C:

    say "$size: buildRecordMap and the floor (bench_mft_record_map)"
    local min_time=()
    [ "$QUICK" = 1 ] && min_time=(--benchmark_min_time=0.01)
    KESTROW_BENCH_IMAGE="$IMG" "$RECORD_MAP_BENCH" \
        '--benchmark_filter=^BM_(ReadMftBytesIntoBuffer|BuildRecordMap|OpenAndBuildRecordMap)/' \
        --benchmark_repetitions="$RUNS" --benchmark_report_aggregates_only=true \
        "${min_time[@]}" --benchmark_format=json --benchmark_out="$out/record-map.json" \
        --benchmark_out_format=json >/dev/null 2>"$out/record-map.err" ||
        die "bench_mft_record_map failed: $(tail -3 "$out/record-map.err")"

    # -- rows
    local tk tf tn tko tif tkb tbl
    tk=$(median "$out/times" kestrow_paths)
    tf=$(median "$out/times" fls_paths)
    tn=$(median "$out/times" ntfsls_paths)
    tko=$(median "$out/times" kestrow_owner)
    tif=$(median "$out/times" ifind_owner)
    tkb=$(median "$out/times" kestrow_bitmap)
    tbl=$(median "$out/times" blkls_used)
    local paths_ratio owner_ratio
    paths_ratio=$(awk -v a="$tf" -v b="$tk" 'BEGIN { print a / b }')
    owner_ratio=$(awk -v a="$tif" -v b="$tko" 'BEGIN { print a / b }')
    local read_f build_f open_f
    # The floor: the MFT's runs read with pread into one reused buffer of the
    # table's size, as the record buffer loads them.
    read -r -a read_f <<<"$(bench_figures "$out/record-map.json" BM_ReadMftBytesIntoBuffer)"
    read -r -a build_f <<<"$(bench_figures "$out/record-map.json" BM_BuildRecordMap)"
    read -r -a open_f <<<"$(bench_figures "$out/record-map.json" BM_OpenAndBuildRecordMap)"
    [ ${#read_f[@]} -ge 2 ] && [ ${#build_f[@]} -ge 2 ] && [ ${#open_f[@]} -ge 2 ] ||
        die "$size: no figures in $out/record-map.json"
    local floor_s floor_paths_ratio
    floor_s=$(awk -v t="${read_f[0]}" 'BEGIN { print t / 1000 }')
    floor_paths_ratio=$(awk -v a="$tk" -v b="$floor_s" 'BEGIN { printf "%.1f", a / b }')

    row "$size" "Every in-use record with its full path" "kestrow paths $(secs "$tk") ($(fault_text "$res" paths))" \
        "fls -r -p $(secs "$tf")" "$(ratio_text "$tk" "$tf")" ">=20x faster" "$(at_least "$paths_ratio" 20)"
    row "$size" "Every in-use record with its full path" "kestrow paths $(secs "$tk")" \
        "pread floor $(secs "$floor_s")" "${floor_paths_ratio}x the floor" "<=4x the floor" \
        "$(awk -v r="$floor_paths_ratio" 'BEGIN { print (r <= 4 ? "met" : "missed") }')"
    row "$size" "Every in-use record with its full path" "kestrow paths $(secs "$tk")" "ntfsls -R $(secs "$tn")" \
        "$(ratio_text "$tk" "$tn")" "(reported)" "-"

    local rate floor_ratio alone_ratio
    rate=$(awk -v r="${build_f[1]}" 'BEGIN { printf "%.2fM rec/s\n", r / 1e6 }')
    floor_ratio=$(awk -v a="${open_f[0]}" -v b="${read_f[0]}" 'BEGIN { printf "%.1f", a / b }')
    alone_ratio=$(awk -v a="${build_f[0]}" -v b="${read_f[0]}" 'BEGIN { printf "%.1f", a / b }')
    row "$size" "buildRecordMap alone ($slots record slots)" "$rate ($(secs "$(awk -v t="${build_f[0]}" 'BEGIN { print t / 1000 }')"))" \
        "" "" ">=5M rec/s" "$(at_least "${build_f[1]}" 5000000)"
    row "$size" "Open + buildRecordMap vs the floor (same reads of the MFT, no parsing)" \
        "$(secs "$(awk -v t="${open_f[0]}" 'BEGIN { print t / 1000 }')")" \
        "pread floor $(secs "$floor_s")" \
        "${floor_ratio}x the floor (buildRecordMap alone ${alone_ratio}x)" "(reported)" "-"
    row "$size" "Owner of a cluster nobody owns (full scan)" "kestrow owner $(secs "$tko") ($(fault_text "$res" owner))" \
        "ifind -d $(secs "$tif")" "$(ratio_text "$tko" "$tif")" ">=3x faster" "$(at_least "$owner_ratio" 3)"
    row "$size" "Used clusters of the volume" "kestrow bitmap $(secs "$tkb") ($(fault_text "$res" bitmap))" \
        "blkls -a -l $(secs "$tbl")" "$(ratio_text "$tkb" "$tbl")" "(reported)" "-"

    # Opening fills the record buffer only as far as the MFT's first run
    # goes: where that run is shorter than the buffer, the rest of the buffer
    # is touched later and would count as memory of the walk. The second
    # figure counts the whole buffer as opened: the peak beyond that of
    # `kestrow volumes` (the process with the disk attached) and the buffer.
    local peak_paths peak_info peak_base per_record beyond_buffer
    peak_paths=$(($(resource "$res" paths 4) * 1024))
    peak_info=$(($(resource "$res" info 4) * 1024))
    peak_base=$(($(resource "$res" volumes 4) * 1024))
    per_record=$(awk -v p="$peak_paths" -v i="$peak_info" -v n="$records" 'BEGIN { printf "%.0f", (p - i) / n }')
    beyond_buffer=$(awk -v p="$peak_paths" -v v="$peak_base" -v b="$buffer" -v i="$peak_info" -v n="$records" \
        'BEGIN { o = v + b; if (i > o) o = i; printf "%.0f", (p - o) / n }')
    row "$size" "Memory of kestrow paths beyond opening the volume ($records records)" \
        "peak $(awk -v p="$peak_paths" 'BEGIN { printf "%.1f MiB", p / 1048576 }')" \
        "kestrow info $(awk -v p="$peak_info" 'BEGIN { printf "%.1f MiB", p / 1048576 }') (buffer $(awk -v b="$buffer" 'BEGIN { printf "%.1f MiB", b / 1048576 }'))" \
        "$per_record B/record beyond info; $beyond_buffer B/record beyond the whole buffer" "<=150 B/record" \
        "$(awk -v r="$beyond_buffer" 'BEGIN { print (r <= 150 ? "met" : "missed") }')"

    {
        echo "$size timings (min..max over $RUNS run(s)):"
        for f in kestrow_paths fls_paths ntfsls_paths kestrow_owner ifind_owner kestrow_bitmap blkls_used; do
            printf '  %-15s median %8.3f s  %-18s  CPU (user + system) median %8.3f s\n' "$f" \
                "$(median "$out/times" "$f")" "$(spread "$out/times" "$f")" "$(median "$out/times" "$f" 3)"
        done
        cpu() { median "$out/times" "$1" 3; }
        echo "  by CPU time (less sensitive to the machine's load): kestrow paths $(ratio_text "$(cpu kestrow_paths)" "$(cpu fls_paths)") than fls -r -p, $(ratio_text "$(cpu kestrow_paths)" "$(cpu ntfsls_paths)") than ntfsls -R; kestrow owner $(ratio_text "$(cpu kestrow_owner)" "$(cpu ifind_owner)") than ifind -d; kestrow bitmap $(ratio_text "$(cpu kestrow_bitmap)" "$(cpu blkls_used)") than blkls -a -l"
        awk -v r="${read_f[0]}" -v c="${read_f[2]:-0}" -v b="${build_f[0]}" -v o="${open_f[0]}" 'BEGIN {
            printf "  bench_mft_record_map: pread floor %.1f ms (reads of %.0f bytes into one buffer), buildRecordMap %.1f ms, open + buildRecordMap %.1f ms\n",
                r, c, b, o }'
        for f in volumes info paths owner bitmap; do
            printf '  kestrow %-7s %8d minor page faults, system time %6.3f s, peak resident %7d KiB\n' "$f" \
                "$(resource "$res" "$f" 2)" "$(resource "$res" "$f" 3)" "$(resource "$res" "$f" 4)"
        done
        echo "  max RSS of the check runs: kestrow paths $(cut -d' ' -f2 "$out/kestrow-paths.rss") KiB, fls $(cut -d' ' -f2 "$out/fls.rss") KiB, ntfsls $(cut -d' ' -f2 "$out/ntfsls.rss") KiB"
        echo "  cluster size $bytes_per_cluster bytes, $total clusters, record buffer $buffer bytes"
    } >>"$CHECKS"
}

# ---- timeline: kestrow timeline against fls -r -m (bodyfiles) ---------------------
# Kept apart from bench_image: its own check, timing and row, on the image
# bench_image has just measured (IMG).

kestrow_timeline() { "$KESTROW" --disk "$IMG" timeline C:; }
fls_bodyfile() { fls -r -m / "$IMG"; }

# name|inode|size|atime|mtime|ctime|crtime of each line, without fls's
# $OrphanFiles directory and the reserved records it lists there unnamed.
bodyfile_facts() {
    awk -F '|' '$2 !~ /^\/\$OrphanFiles(\/OrphanFile-[0-9]+ \(deleted\))?$/ {
        print $2 "|" $3 "|" $7 "|" $8 "|" $9 "|" $10 "|" $11 }' "$1" | sort
}

bench_timeline() {
    local size=$1 out="$RESULTS/$1"
    "$KESTROW" --disk "$IMG" timeline C: >"$out/timeline.body"
    fls -r -m / "$IMG" >"$out/fls.body"
    bodyfile_facts "$out/timeline.body" >"$out/timeline.facts"
    bodyfile_facts "$out/fls.body" >"$out/fls.facts"
    local only_k only_f
    only_k=$(comm -23 "$out/timeline.facts" "$out/fls.facts" | wc -l)
    only_f=$(comm -13 "$out/timeline.facts" "$out/fls.facts" | wc -l)
    check "$size timeline: $(wc -l <"$out/timeline.facts") bodyfile lines; only kestrow timeline $only_k, only fls -r -m $only_f (name, inode, size, four times)"
    say "$size: timing the bodyfile (kestrow timeline, fls -r -m), $RUNS round(s)"
    measure "$out/times-timeline" kestrow_timeline fls_bodyfile
    local tk tf
    tk=$(median "$out/times-timeline" kestrow_timeline)
    tf=$(median "$out/times-timeline" fls_bodyfile)
    row "$size" "Bodyfile of every file (both time sets, streams, deleted records)" \
        "kestrow timeline $(secs "$tk")" "fls -r -m $(secs "$tf")" "$(ratio_text "$tk" "$tf")" \
        ">=10x faster" "$(at_least "$(awk -v a="$tf" -v b="$tk" 'BEGIN { print a / b }')" 10)"
    check "$size timeline CPU (user + system) medians: kestrow timeline $(median "$out/times-timeline" kestrow_timeline 3) s, fls -r -m $(median "$out/times-timeline" fls_bodyfile 3) s"
}

# ---- run ------------------------------------------------------------------------

LOAD_BEFORE=$(uptime)
STARTED=$(date -u '+%Y-%m-%d %H:%M UTC')
# The machine's price of a fresh page: "<way> <us per 4 KiB page> <faults>".
"$PAGE_FAULT_BENCH" >"$RESULTS/page-faults.txt" || die "bench_page_fault_cost failed"
page_cost() { awk -v w="$1" '$1 == w { print $2 }' "$RESULTS/page-faults.txt"; }
FAULTS="a fresh 4 KiB page costs $(page_cost touched) us touched (64 MiB page by page), $(page_cost populated) us with MAP_POPULATE, $(page_cost hugepages) us on huge pages"
for size in $SIZES; do
    bench_image "$size"
    bench_timeline "$size"
done
LOAD_AFTER=$(uptime)

COMMIT=$(git -C "$ROOT" rev-parse --short HEAD 2>/dev/null || echo unknown)
DIRTY=""
[ -z "$(git -C "$ROOT" status --porcelain --untracked-files=no 2>/dev/null || true)" ] ||
    DIRTY=" (with local changes)"
CPU=$(awk -F ': ' '/^model name/ { print $2; exit }' /proc/cpuinfo 2>/dev/null || true)
CONTEXT="$STARTED, commit $COMMIT$DIRTY, $BUILD_TYPE build, $(nproc) x ${CPU:-unknown CPU}; $RUNS timed run(s) per command after one warm-up, median wall time, image in the page cache"
LOADS="load before: ${LOAD_BEFORE##*load average: }; after: ${LOAD_AFTER##*load average: }"
# (ntfsls -V exits with status 1.)
VERSIONS="fls $({ fls -V 2>&1 || true; } | awk '{ print $NF; exit }'), ntfsls $({ ntfsls -V 2>&1 || true; } | awk '/ntfsls v/ { sub(/.*ntfsls v/, ""); print $1; exit }')"

print_text() {
    echo "kestrow benchmarks: $CONTEXT"
    echo "$LOADS"
    echo "$FAULTS"
    echo "tools: $VERSIONS; images in $IMAGES"
    echo
    cat "$CHECKS"
    echo
    awk -F '\t' '
        { for (i = 1; i <= NF; i++) { cell[NR, i] = $i; w = length($i); if (w > width[i]) width[i] = w } }
        END {
            split("Image|Workload|kestrow|Counterpart|Ratio|Target|Result", head, "|")
            for (i = 1; i <= 7; i++) if (length(head[i]) > width[i]) width[i] = length(head[i])
            for (i = 1; i <= 7; i++) printf "%-*s%s", width[i], head[i], i < 7 ? "  " : "\n"
            for (r = 1; r <= NR; r++)
                for (i = 1; i <= 7; i++) printf "%-*s%s", width[i], cell[r, i], i < 7 ? "  " : "\n"
        }' "$ROWS"
}

print_markdown() {
    echo "Measured $CONTEXT ($LOADS; $VERSIONS); $FAULTS."
    echo
    echo "| Image | Workload | kestrow | Counterpart | Ratio | Target | Result |"
    echo "|---|---|---|---|---|---|---|"
    awk -F '\t' '{ printf "| %s | %s | %s | %s | %s | %s | %s |\n", $1, $2, $3, $4, $5, $6, $7 }' "$ROWS"
    # A busy machine stretches every time; the interleaved rounds keep the
    # ratios fair, but the absolute figures say so.
    awk -v before="${LOAD_BEFORE##*load average: }" -v after="${LOAD_AFTER##*load average: }" \
        -v cores="$(nproc)" 'BEGIN {
            split(before, b, ","); split(after, a, ",")
            if (b[1] + 0 > cores || a[1] + 0 > cores)
                printf "\nThe machine was busy (load above its %d cores), so the absolute times are noisy; each ratio comes from interleaved runs.\n", cores }'
}

# Replaces what stands between the README's bench-table markers.
update_readme() {
    local readme="$ROOT/README.md"
    grep -q '^<!-- bench-table -->$' "$readme" && grep -q '^<!-- /bench-table -->$' "$readme" ||
        die "README.md has no <!-- bench-table --> ... <!-- /bench-table --> markers"
    awk -v table="$RESULTS/report.md" '
        /^<!-- bench-table -->$/ { print; while ((getline line < table) > 0) print line; skip = 1; next }
        /^<!-- \/bench-table -->$/ { skip = 0 }
        !skip { print }' "$readme" >"$RESULTS/README.md"
    cat "$RESULTS/README.md" >"$readme"
    say "README.md: table replaced"
}

print_text >"$RESULTS/report.txt"
print_markdown >"$RESULTS/report.md"
if [ "$MARKDOWN" = 1 ]; then
    cat "$RESULTS/report.md"
else
    cat "$RESULTS/report.txt"
fi
[ "$UPDATE_README" = 0 ] || update_readme
say "results kept in $RESULTS"
