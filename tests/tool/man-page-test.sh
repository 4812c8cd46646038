#!/usr/bin/env bash
# The manual page follows kestrow's help: each command that `kestrow --help`
# lists has an entry under every usage line of `kestrow COMMAND --help`, each
# option is there, the version is the program's, and groff reads the page
# without a warning.
#   man-page-test.sh KESTROW PAGE
set -uo pipefail
kestrow=$1
page=$2
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
# Text as the page writes it.
roff() { sed 's/\\/\\e/g; s/-/\\-/g' <<<"$1"; }

help=$("$kestrow" --help)
commands=$(sed -n '/^commands:$/,/^$/s/^  \([a-z][a-z-]*\).*/\1/p' <<<"$help")
[ -n "$commands" ] || fail "kestrow --help lists no commands"
for command in $commands; do
  usages=$("$kestrow" "$command" --help |
    sed -n -e 's/^usage: \(kestrow .*\)/\1/p' -e 's/^ \{7\}\(kestrow .*\)/\1/p')
  [ -n "$usages" ] || fail "kestrow $command --help has no usage line"
  while IFS= read -r usage; do
    grep -qxF ".B $(roff "$usage")" "$page" || fail "no entry for '$usage'"
  done <<<"$usages"
done
options=$(grep -oE '^  -[-a-zA-Z]+(, -[-a-zA-Z]+)?' <<<"$help" | grep -oE -- '-[-a-zA-Z]+')
[ -n "$options" ] || fail "kestrow --help lists no options"
option_section=$(sed -n '/^\.SH OPTIONS$/,/^\.SH /p' "$page")
for option in $options; do
  grep -qE "^\.B (.*, )?$(roff "$option" | sed 's/\\/\\\\/g')( |,|$)" <<<"$option_section" ||
    fail "no entry for option $option"
done
version=$("$kestrow" --version)
grep -qF "\"$version\"" "$page" || fail "the page is not of $version"

if command -v groff >/dev/null; then
  warnings=$(groff -man -ww -z "$page" 2>&1)
  [ -z "$warnings" ] || fail "groff warns: $warnings"
else
  echo "groff is not installed: the page's roff was not checked"
fi
[ "$failures" -eq 0 ] && echo "the manual page has the $(wc -w <<<"$commands") commands and $(wc -w <<<"$options") options of kestrow --help"
exit $((failures > 0))
