#!/usr/bin/env bash
# The man page and the completion as they are installed, against the tool's own help.
#   packaging_test.sh KIV BUILD_FOLDER
set -euo pipefail
kiv=$1 build=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failures=0

fail() {
  echo "FAILED: $*" >&2
  failures=$((failures + 1))
}

DESTDIR=$scratch cmake --install "$build" --prefix /usr >/dev/null
page=$scratch/usr/share/man/man1/kiv.1.gz
[ -x "$scratch/usr/bin/kiv" ] || fail "the tool is not installed"

# The command lines of the help, without their comments.
usages=$(KIV_STATE_DIR=$scratch/state "$kiv" | sed -n '/^   kiv /{s|/\*.*||; s/^ *//; s/ *$//; p}')
[ "$(wc -l <<<"$usages")" -gt 60 ] || fail "the help has too few commands"

warnings=$(gunzip -c "$page" | groff -man -Tutf8 -ww -z 2>&1)
[ -z "$warnings" ] || fail "man page: $warnings"
text=$(gunzip -c "$page" | groff -man -Tascii -P-cbou -rLL=1000n)
while read -r usage; do
  grep -Eq "^ +${usage//./\\.}( |$)" <<<"$text" || fail "not in the man page: $usage"
done <<<"$usages"

source "$scratch/usr/share/bash-completion/completions/kiv"
# expect WORDS LINE...: what may follow the line, whose last word may be empty.
expect() {
  COMP_WORDS=("${@:2}") COMP_CWORD=$(($# - 2)) COMPREPLY=()
  _kiv || true  # as compgen has it when there is nothing
  [ "${COMPREPLY[*]}" = "$1" ] || fail "completion of '${*:2}': ${COMPREPLY[*]}"
}
expect "3 4 5 6 7 8 9 10 11 12" kiv ''
for category in 3 4 5 7 9 10 11 12; do
  commands=$(awk -v category="$category" '$2 == category { print $3 }' <<<"$usages")
  expect "${commands//$'\n'/ }" kiv "$category" ''
done
expect "10 1 11" kiv 11 1
expect "0 1" kiv 4 1 ''
expect "0 1 2 3" kiv 9 31 ''
expect "0 1 2 3 4 5 6" kiv 6 ''
expect "" kiv 4 2 0 550 1 2 3 4 5 6 ''

exit $((failures > 0))
