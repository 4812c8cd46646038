#!/usr/bin/env bash
# The main job: runs kestrow on a sample disk image.
set -euo pipefail
build=${1:-build}
"$build/tools/kestrow" --version
