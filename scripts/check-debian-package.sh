#!/usr/bin/env bash
# Makes the Debian packages of a build (cpack -G DEB), unpacks them into a
# scratch root as dpkg would install them (dpkg -x: no root rights, no
# container, nothing written outside the build directory), and checks the
# result there with tests/install/CheckInstall.cmake: the installed kestrow
# runs and its manual page shows, the licence is named, and a host builds
# against the package with find_package(Kestrow) and with pkg-config.
#
#   scripts/check-debian-package.sh [build-dir]
#
# The build directory (default <repo>/build) must hold a finished build and
# its fixture images (made by its test run).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
work=$build/debian-package
rm -rf "$work"
mkdir -p "$work/root"

if ! (cd "$build" && cpack -G DEB -B "$work/packages" >"$work/cpack.log" 2>&1); then
  cat "$work/cpack.log" >&2
  exit 1
fi
for deb in "$work"/packages/*.deb; do
  echo "$(basename "$deb"): $(dpkg-deb --field "$deb" Depends)"
  dpkg -x "$deb" "$work/root"
done

cmake -DPREFIX="$work/root/usr" -DWORK_DIR="$work/check" \
  -DCONSUMER_DIR="$root/tests/install/consumer" -DIMAGE="$build/fixtures/bare.img" \
  -DCXX="${CXX:-c++}" -P "$root/tests/install/CheckInstall.cmake"
echo "the packages install and serve a host"
