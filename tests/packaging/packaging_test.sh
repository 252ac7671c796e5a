#!/usr/bin/env bash
# The man pages, the completions and the Debian package, against the tool's own help.
#   packaging_test.sh KIV BUILD_FOLDER
set -euo pipefail
kiv=$1 build=$2
project=$(cd "$(dirname "$0")/../.." && pwd)
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
  "_${2//-/_}" || true  # as compgen has it when there is nothing
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
expect "3 4 5 6 7 8 9 10 11 12 help" kiv-check ''
expect "3 4 5 6 7 8 9 10 11 12" kiv-check -t 5 -n ''
expect "1 2 3 4 5 6" kiv-check -t 5 4 ''
expect "1 2 3 4 5 6" kiv-check help 4 ''
expect "-t -j -n -V -h" kiv-check -
expect "3 30 31" kiv-watch 3
expect "0 1 2 3" kiv-watch 31 ''
expect "0 1 nv efs" kiv-nv-save 0 nv 550 ''
cd "$scratch" && touch record
expect record kiv-check -j rec
expect record kiv-nv-save -o rec

# zsh shows what each word means. Its own helpers are replaced by ones that print.
expect_zsh() { # WORDS PROGRAM FUNCTION LINE...: as if the cursor were at the last word of the line
  local got
  got=$(zsh -fc '
    _describe() { print -r -- ${(P)@[-1]} }; _message() { print -r -- "$1" }
    _values() { : }; _arguments() { : }
    service=$1 words=("${@:4}"); CURRENT=$#words; source "$3" 2>/dev/null; $2' - "$2" "$3" \
    "$scratch/usr/share/zsh/vendor-completions/_kiv" "${@:4}" | tail -n 1)
  [ "$got" = "$1" ] || fail "zsh completion of '${*:2}': $got"
}
expect_zsh "0:callback 1:DCI" kiv _kiv_command kiv 5 0 ''
expect_zsh "nv_id 0 to 7232" kiv _kiv_command kiv 4 1 0 ''
expect_zsh "0:first 1:second subscription" kiv-check _kiv_check_command 4 1 ''
expect_zsh "1:nv read 2:nv write 3:nv delete 4:efs read 5:efs write 6:efs delete" kiv-check \
  _kiv_check_command help 4 ''

# One version number, and a package that Debian's own check takes.
version=$("$build/kiv-check" -V)
version=${version#kiv-check }
heading=$(sed -n 's/^## \([^ ]*\),.*/\1/p' "$project/CHANGELOG.md" | head -1)
[ "$heading" = "$version" ] || fail "CHANGELOG.md begins with $heading, the version is $version"
gunzip -c "$page" | grep -q "kiv $version" || fail "the man page has another version"
cpack --config "$build/CPackConfig.cmake" -B "$scratch/package" >"$scratch/log" 2>&1 ||
  fail "$(cat "$scratch/log")"
errors=$(lintian --allow-root "$scratch"/package/*.deb 2>&1 | grep '^E:' || true)
[ -z "$errors" ] || fail "$errors"

exit $((failures > 0))
