#!/bin/sh
# shellcheck disable=SC2016,SC2317 # texts for another shell; traps call functions
# Checks every handset of a list at once, by GNU parallel, and sums up.
set -u

usage='usage: line_check.sh [-j JOBS] [-t SECONDS] [-r REACH] [-c COMMAND] RESULTS LIST [-- OPTION...]

LIST is a file with a handset in each line: its serial number, or any name of letters, digits and
._:@+- that begins with a letter or a digit. Each handset is checked by a factory script, whose output
and records go to RESULTS/handsets/HANDSET/stdout. A run that was stopped, or broke off, goes on where
it stopped when the same line is typed again: handsets whose check has ended are not checked again. To
check them again, use new RESULTS.

  -j JOBS      so many handsets at once, 8 without this option
  -t SECONDS   so long for a handset, 300 without this option
  -r REACH     how a command reaches a handset, whose name stands for {}: "adb -s {} shell" without
               this option. The command is its last word, for a shell at the other end
  -c COMMAND   what is run there, with status 0 for a good handset. Without this option it is in
               /data/local/tmp: factory_check.sh, then the records that it has left
  OPTION       of GNU parallel, like --sshlogin 8/bench1,8/bench2 for the handsets of other computers

RESULTS/summary and standard output tell of each handset: good, FAILED (with the steps that failed),
or NOT FINISHED, when the time ran out or the handset went away; another run tries these again. The
status is 0 when all are good, 1 when one failed, 2 when one was not finished, for wrong usage, or when
another run still writes to RESULTS.'

refuse() { printf 'line_check.sh: %s\n' "$1" >&2 && exit 2; }

jobs=8 limit=300 reach='adb -s {} shell'
command='cd /data/local/tmp && rm -rf check && sh factory_check.sh check
  status=$?; cat check/records.json; exit "$status"'
while getopts :j:t:r:c:h option; do
  case $option in
    j) jobs=$OPTARG ;;
    t) limit=$OPTARG ;;
    r) reach=$OPTARG ;;
    c) command=$OPTARG ;;
    h) printf '%s\n' "$usage" && exit ;;
    *) [ "${1-}" = --help ] && printf '%s\n' "$usage" && exit
      refuse "$usage" ;;
  esac
done
shift $((OPTIND - 1))
[ $# -ge 2 ] || refuse "$usage"
results=$1 list=$2
shift 2
[ "${1-}" != -- ] || shift
command -v parallel >/dev/null || refuse 'GNU parallel is not installed: the Debian package parallel'
[ -s "$list" ] || refuse "no handsets in $list"
odd=$(grep -nvxE '[A-Za-z0-9][A-Za-z0-9._:@+-]*' "$list" | head -1)
[ -z "$odd" ] || refuse "no name of a handset in line ${odd%%:*} of $list: \"${odd#*:}\""
twice=$(sort "$list" | uniq -d | head -1)
[ -z "$twice" ] || refuse "twice in $list: $twice"
mkdir -p "$results/handsets" || exit 2
# Parallel holds the lock too, so that a handset is not checked twice when this shell alone was killed.
exec 9>"$results/lock"
flock -n 9 || refuse "another run still writes to $results"
# The copy has a newline behind its last name too, or that handset would not be read.
awk 1 "$list" >"$results/list.new" || exit 2
[ -e "$results/list" ] || cp "$results/list.new" "$results/list" || exit 2
cmp -s "$results/list.new" "$results/list" || refuse "$results belongs to another list of handsets"

# What runs at the other end tells last how it went: a handset that goes away tells nothing.
command="($command
); printf '\nline_check: %d\n' \$?"
quoted="'$(printf '%s\n' "$command" | sed "s/'/'\\\\''/g")'"
# A handset whose output has that last line has been checked, whatever became of the run.
verdict() { tail -n 1 "$results/handsets/$1/stdout" 2>/dev/null; }
while read -r handset; do
  case $(verdict "$handset") in 'line_check: '*) ;; *) echo "$handset" ;; esac
done <"$results/list" >"$results/left"
parallel --jobs "$jobs" --timeout "$limit" --joblog "+$results/jobs" --results "$results/handsets/{}/" \
  --arg-file "$results/left" "$@" "$reach $quoted 9>&-" >/dev/null 2>"$results/errors" &
running=$!
# Ended twice, parallel ends what it has started.
stop() {
  kill -s TERM "$running"
  sleep 0.2
  kill -s TERM "$running" 2>/dev/null
  wait "$running"
  exit "$1"
}
trap 'stop 129' HUP && trap 'stop 130' INT && trap 'stop 143' TERM
wait "$running"
trap - HUP INT TERM

while read -r handset; do
  case $(verdict "$handset") in
    'line_check: 0') echo "good          $handset" ;;
    'line_check: '*)
      echo "FAILED        $handset"
      grep -A 1 -E 'FAIL|TIME OUT|NOT RUN' "$results/handsets/$handset/stdout" | sed 's/^/  /' ;;
    *) echo "NOT FINISHED  $handset" ;;
  esac
done <"$results/list" >"$results/summary.new"
status=0
! grep -q '^FAILED' "$results/summary.new" || status=1
! grep -q '^NOT FINISHED' "$results/summary.new" || status=2
[ "$(grep -c '^[gFN]' "$results/summary.new")" -eq "$(grep -c . "$results/list")" ] ||
  refuse "$results/summary cannot be written"
mv "$results/summary.new" "$results/summary" && cat "$results/summary"
awk '/^[gFN]/ { count[$1]++ }
  END { printf "%d good, %d failed, %d not finished\n", count["good"], count["FAILED"], count["NOT"] }' \
  "$results/summary"
exit "$status"
