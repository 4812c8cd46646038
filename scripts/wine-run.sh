#!/usr/bin/env bash
# Runs a Windows program under Wine: wine-run.sh <wine prefix dir> <program> [args...]
#
# The prefix is created on first use (wineboot), once even when several
# programs start at the same time. Wine's own diagnostics are silenced but
# for failures to load a DLL; the Mono and Gecko installers it would offer
# are skipped, and so is its debugger, so that a program that dies of an
# unhandled exception ends at once with the exception code as exit status,
# as on Windows.
#
# Starting Wine costs seconds, most of it in bringing up the wineserver and
# its services; keeping the server alive for a while between programs makes
# each further start cost a fraction of a second. `wineserver -k` with the
# same WINEPREFIX stops it early.
set -Eeuo pipefail
# A failure of this script itself, not of the program, must say so: a test
# that fails without output would leave nothing to go on.
trap 'echo "$0: failed (status $?) at line $LINENO" >&2' ERR

if [ $# -lt 2 ]; then
  echo "usage: $0 <wine prefix dir> <program> [args...]" >&2
  exit 2
fi
prefix=$1
shift

export WINEPREFIX=$prefix
export WINEDEBUG=${WINEDEBUG:--all,err+module}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=;winedbg.exe=d}
wine=${KESTROW_WINE:-/usr/lib/wine/wine64}
[ -x "$wine" ] || wine=$(command -v wine64 || command -v wine)
wineserver=$(command -v wineserver || echo "$(dirname "$wine")/wineserver")

if [ ! -f "$prefix/system.reg" ]; then
  mkdir -p "$(dirname "$prefix")"
  (
    flock 9
    if [ ! -f "$prefix/system.reg" ]; then
      "$wine" wineboot --init </dev/null >/dev/null 2>&1 9>&- || true
      # wineboot returns before the registry is written out; the server
      # flushes it when it exits.
      "$wineserver" --wait 9>&- || true
    fi
  ) 9>"$prefix.lock"
  if [ ! -f "$prefix/system.reg" ]; then
    echo "$0: could not create the Wine prefix $prefix" >&2
    exit 1
  fi
fi

# The server and the services Wine starts with it outlive this program, so
# they must not hold our caller's output open (CTest waits for its pipes to
# close): bring them up here, away from that output, when none is running.
(
  flock 9
  if "$wineserver" -p"${KESTROW_WINESERVER_PERSIST:-30}" </dev/null >/dev/null 2>&1 9>&-; then
    "$wine" cmd.exe /c exit 0 </dev/null >/dev/null 2>&1 9>&- || true
  fi
) 9>"$prefix.lock"

exec "$wine" "$@"
