#!/usr/bin/env bash
# The main job: runs kestrow on a small sample disk image (an MBR disk with
# one NTFS partition holding a little tree). Called by `make demo` with the
# build directory; the image is made once, into the build tree, and reused.
set -euo pipefail

build=${1:-build}
kestrow="$build/tools/kestrow"
maker="$build/tools/kestrow_sample_image"
image="$build/demo/sample-disk.img"

for program in "$kestrow" "$maker"; do
  if [ ! -x "$program" ]; then
    echo "demo: $program is missing; build first (make build)" >&2
    exit 1
  fi
done

if [ ! -f "$image" ]; then
  mkdir -p "$(dirname "$image")"
  echo "Making the sample disk image $image ..."
  # The NTFS-3G library reports the fillers' full-disk allocations on stderr:
  # kept in a log, shown only when the image could not be made.
  if ! "$maker" "$image" >"$image.log" 2>&1; then
    cat "$image.log" >&2
    exit 1
  fi
fi

run() {
  echo
  echo "\$ kestrow --disk $image $*"
  "$kestrow" --disk "$image" "$@"
}

log='\Projects\kestrow\build\kestrow.log'

run volumes
run info C:
run ls C: '\Projects\kestrow'
echo
echo "\$ kestrow --disk $image paths C:    (the first lines under \\Projects)"
# awk reads to the end, so that kestrow is never cut off by a closed pipe.
"$kestrow" --disk "$image" paths C: |
  awk -v want='C:\\Projects\\' 'n < 12 && index($0, want) { print; n++ }'

# The log's record number and the first of its clusters, from the JSON forms.
record=$("$kestrow" --disk "$image" --json find C: "$log" |
  sed -n 's/.*"index": \([0-9]*\).*/\1/p' | sed -n 1p)
run record C: "$record"
run extents C: "$log"
cluster=$("$kestrow" --disk "$image" --json record C: "$record" |
  sed -n 's/.*"volumeCluster": \([0-9]*\).*/\1/p' | sed -n 2p)
run owner C: "$cluster"

# A deleted file keeps its record, but it is no longer in use.
run find C: '\Documents\draft-to-delete.docx' || echo "(exit status $?: the file was deleted)"

echo
echo "$("$kestrow" --disk "$image" paths C: | wc -l) in-use records; see them all with:"
echo "  $kestrow --disk $image paths C:"
