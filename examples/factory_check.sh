#!/bin/sh
# usage: factory_check.sh FOLDER
#
# A small factory check of a handset's modem: saves two items, writes them, restarts the modem, looks
# whether it kept them, and prints a table of verdicts, each failure with its reason. Ends with status 0
# when every step passed; when one did not, the items are put back and the status is 1.
#
# FOLDER, which is made, gets what a run leaves: restore.sh, which puts the items back, records.json,
# one line for each run of kiv, and what each step printed.
#
# On a workstation the simulated modem provokes failures by modem.conf in the state directory:
#   fault.extension = silent      the items cannot be saved: it ends before anything is changed
#   stats.0x52.0 = none           no measurement: only the step "signal" fails
#   eid = none                    only the step "eSIM" fails
set -u
case ${1-} in -h | --help) sed -n '2,/^set -u/{/^#/s/^# \{0,1\}//p;}' "$0" && exit ;; esac
# The programs of the PATH, else those beside this script, else those of the build.
here=$(cd "$(dirname "$0")" && pwd)
command -v kiv-check >/dev/null || PATH=$here:$here/../build/release:$PATH
folder=${1:?usage: factory_check.sh FOLDER}
mkdir "$folder" || exit 2
kiv-nv-save -o "$folder/restore.sh" 0 nv 3000 efs /oem/factory/station || {
  rmdir "$folder"
  exit 1
}
trap 'sh "$folder/restore.sh"; exit 1' HUP INT TERM

failed=0

# step NAME SECONDS KIV-ARGUMENT...
step() {
  name=$1 limit=$2
  shift 2
  kiv-check -t "$limit" -j "$folder/records.json" "$@" >"$folder/$name.txt" 2>&1
  case $? in
    0) verdict=pass ;;
    2) verdict='NOT RUN' failed=1 ;; # wrong usage
    124) verdict='TIME OUT' failed=1 ;;
    *) verdict=FAIL failed=1 ;;
  esac
  printf '%-8s %-9s kiv %s\n' "$name" "$verdict" "$*"
  [ "$verdict" = pass ] || sed -n '$s/^/         /p' "$folder/$name.txt"
}

# Passes when the bytes that a step read are these.
shows() {
  read_back=$(sed -n 's/^RIL\[.*_read:  \(..\)$/\1/p' "$folder/$1.txt" | tr '\n' ' ')
  if [ "$read_back" = "$2 " ]; then verdict=pass; else verdict=FAIL failed=1; fi
  printf '%-8s %-9s reads %s\n' "$1" "$verdict" "${read_back% }"
}

step nv 10 4 2 0 3000 1 2 255
step efs 10 4 5 0 /oem/factory/station 83 55
step restart 20 11 0
step nv-kept 10 4 1 0 3000
shows nv-kept '01 02 FF'
step efs-kept 10 4 4 0 /oem/factory/station
shows efs-kept '53 37'
step signal 10 9 0 0
step eSIM 20 5 10 3 0

[ "$failed" -eq 0 ] || sh "$folder/restore.sh" || echo 'restore  FAIL'
exit "$failed"
