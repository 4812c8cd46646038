#!/usr/bin/env bash
# Installs the Debian packages the build needs, when missing.
# As root it runs apt-get; otherwise it prints the exact command and stops.
#
#   scripts/install-deps.sh             everything: the library, kestrow, the
#                                       tests, benchmarks, fuzz targets and demo
#   scripts/install-deps.sh --library   only what the library and kestrow need
#                                       (configure with -DKESTROW_BUILD_TESTS=OFF
#                                       -DKESTROW_BUILD_BENCH=OFF)
#   KESTROW_WINDOWS=1 scripts/install-deps.sh   also the Windows cross build
set -euo pipefail

library=(cmake ninja-build g++ make)
case "${1:-}" in
  --library)
    packages=("${library[@]}")
    ;;
  "")
    packages=(
      "${library[@]}" pkg-config
      googletest libgtest-dev libgmock-dev libbenchmark-dev
      clang libclang-rt-14-dev
      ntfs-3g ntfs-3g-dev sleuthkit fdisk gdisk dosfstools exfatprogs
      python3
      time
      groff-base man-db
    )
    ;;
  *)
    echo "usage: $0 [--library]" >&2
    exit 2
    ;;
esac
if [ "${KESTROW_WINDOWS:-0}" = 1 ]; then
  # The Windows cross build and Wine to run it (scripts/windows-ci.sh).
  packages+=(g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 wine wine64)
fi

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  case "$status" in
    *"install ok installed"*) ;;
    *) missing+=("$p") ;;
  esac
done

[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages. Install them with:" >&2
  echo "  sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi

echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq "${missing[@]}" >/dev/null
