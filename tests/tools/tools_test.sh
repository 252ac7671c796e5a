#!/bin/sh
# Tests of the programs in tools/ and the scripts in examples/: tools_test.sh CASE BUILD_FOLDER
# shellcheck disable=SC2317,SC2086,SC2216 # cases are called by name; rows are words; no reader
set -u
project=$(cd "$(dirname "$0")/../.." && pwd)
room=$(mktemp -d)
trap 'rm -rf "$room"' EXIT
export KIV_STATE_DIR="$room/state"
PATH=$2:$PATH
cd "$room" && mkdir state || exit 1
shell='sh' failures=0 mask='persist.vendor.radio.adb_log_shell'

expect() { # WHAT WANTED GOT
  [ "$2" != "$3" ] || return 0
  printf 'FAILED: %s\n  wanted: %s\n  got:    %s\n' "$1" "$2" "$3"
  failures=1
}

check() { kiv-check "$@" >out 2>err; }

# Calls $1 for each shell that is installed.
in_each_shell() {
  for shell in 'sh' dash 'bash --posix' 'busybox sh' mksh; do
    ! command -v "${shell%% *}" >/dev/null || "$1"
  done
}

case_lint() {
  cd "$project" || return
  expect shellcheck '' "$(shellcheck -s sh examples/*.sh tests/tools/*.sh scripts/make-docs
    shellcheck -x -P scripts scripts/run scripts/test scripts/transcripts scripts/fuzz \
      scripts/bench scripts/doc-examples scripts/make-picture scripts/test-aarch64 scripts/test-valgrind)"
  expect 'man pages' '' "$(groff -man -Tutf8 -ww -z docs/*.1 2>&1)"
}

# arguments|what modem.conf says|status|what the record tells of the failure
verdicts='3 3 1 4 0x3||0|;5 0 0 0 1000 0x7C||0|;5 0 0 1 0 0x4B||0|;5 10 4 1||0|;10 1 3||0|;11 4 1||0|
4 1 0 551||1|tervik_nvefs_test_nv_read: tervik_extend_qmi_send_sync fail, REQUEST_ID_EFS","code":5,
1||1|main: Not support","code":268431370,;5 0 0 1 0 0x4B|fault.diag = error:5|1|: ret_send = 5,
5 5|fault.sar = result:3|1|the modem refuses to tell the DSI","code":3,
5 7 3|fault.sar = result:3|1|the modem refuses the DSI","code":3,
12 0|fault.nas = result:3|1|the modem refuses the scan","code":3,
3 0 1|extension.rsp_result = 9|1|the modem refuses the setting","code":9,
5 10 3 0|eid = 89001017000000000000000000000164|1|check digits are wrong","code":-1,
7 1 0|stats.enable = 0|1|the support check says CLOSED","code":-1,
13||2|;4 7||2|;4||2|;4 1 0 7233||2|;4 1 0 x||2|;4 1 0 550 1||2|;9 99 0||2|;8 a b||2|;7 2 0||2|
4 2 0 550 0x10 300 -7||2|;4 2 0 550||2|;5 0 1 0 10 0x100||2|;5 0 1 0 10 0xFF||0|;3 3 1 4 0xx||2|'

case_verdicts() {
  rows=0
  printf '%s\n' "$verdicts" | tr ';' '\n' >list
  while IFS='|' read -r arguments conf status said; do
    rm -rf state record && mkdir state
    echo "$conf" >state/modem.conf
    check -t 20 -j record $arguments
    expect "$conf|$arguments" "$status" "$?"
    case $status,$(cat record 2>/dev/null) in
      2, | 0,*'"verdict":"success"'* | 1,*'"verdict":"failure"'*"$said"*) ;;
      *) expect "record of $arguments" "$said" "$(cat record)" ;;
    esac
    rows=$((rows + 1))
  done <list
  expect 'rows' 29 "$rows"
  rm -rf state/* record
  check -n 4 4 0 "/a b'c"
  expect 'what would be run' "0 kiv 4 4 0 '/a b'\\''c'" "$? $(cat out)"
  check 4 1 0 551
  expect 'what a code means' 1 "$(grep -c '(5 not active: nobody has written this NV item; ' err)"
  check help 4 1
  expect 'help of a command' "0 kiv 4 1 0 550" "$? $(sed -n 's/^  example: //p' out)"
  for arguments in '' '-x 4' '-t 0 4' '-t x 4' '-j /nowhere/record 4 1 0 550' 'help 44' 'help 4 77'; do
    check $arguments
    expect "kiv-check $arguments" 2 "$?"
  done
  # What is read, and bytes that are no text; runs at the same time.
  for _ in 1 2 3 4 5 6; do kiv-check -j record 4 1 0 550 >out & done
  wait
  check -j record 4 4 0 "$(printf '/\303\251"')"
  expect 'records' '6 1' "$(grep -cF '"read":[{"name":"tervik_nvefs_test_nv_read","bytes":"08 0A 10 10 07 00 00 00 30"}]' \
    record) $(grep -cF '{"arguments":["4","4","0","/\u00c3\u00a9\""],"verdict":"failure",' record)"
}

# What differs from run to run: process ids, timers, addresses.
same() {
  sed -E 's/(pid|p_id|id|ID)([ =:(]+)[0-9]+/\1\2N/g; s/0x[0-9a-f]{6,}/0xN/g; s/proc\/[0-9]+/proc\/N/
    s/(ptr|handle) [0-9a-fx]+/\1 N/g' "$1"
}

# What passes through is what kiv prints, for every example and every outcome of the table.
case_relay() {
  row=0
  "$project/scripts/make-docs" examples "$project/docs/commands.md" | sed 's/^kiv *//' |
    awk 'NF { print "|" $0 }' >rows
  # Without the rows that end by a time limit or change with time.
  awk -F ' *[|] *' '/^[|].*`kiv / { sub(/^`kiv /, "", $4); print $3 "|" $4 }' "$project/docs/factory.md" |
    tr -d '`' | grep -vE 'vs = down|fading' >>rows
  expect 'rows' yes "$([ "$(wc -l <rows)" -gt 70 ] && echo yes)"
  # Most of them wait: all run at once.
  while IFS='|' read -r conf arguments; do
    row=$((row + 1))
    mkdir "$row" && relay_row "$room/$row" "$conf" "$arguments" &
  done <rows
  wait
  expect 'differences' '' "$(cat "$room"/*/differences)"
  expect 'rows that run' yes "$([ "$(find . -name differences | wc -l)" -gt 50 ] && echo yes)"
}

# Runs a row by both programs, in a folder of its own.
relay_row() { # FOLDER MODEM.CONF ARGUMENTS
  cd "$1" && mkdir state && echo "$2" >state/modem.conf && cp -r state state2 || exit
  # Threads take turns as they come: two runs of kiv itself differ then.
  case $2,$3 in *,8* | *,'5 0 '* | *,10* | *,'11 8'* | *silent*) return ;; esac
  KIV_STATE_DIR=$1/state2 kiv $3 >out2 2>err2 &
  KIV_STATE_DIR=$1/state kiv-check -t 100 $3 >out 2>err
  [ "$?" -ne 2 ] || return # is not run
  wait
  sed -i '/^kiv-check: failure: /d' err
  for each in out out2 err err2; do same "$each" >"$each.same"; done
  { diff out.same out2.same && diff err.same err2.same && diff -r state state2; } >found ||
    echo "by kiv $3 with $2" >>found
  mv found differences
}

# The number of processes that have the word $2 in their command line and this test's state
# directory, once it is $1.
processes() {
  for _ in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do
    count=$(grep -lz "KIV_STATE_DIR=$room/state" /proc/[0-9]*/environ 2>/dev/null |
      while read -r path; do grep -lzx "$2" "${path%environ}cmdline" 2>/dev/null; done | wc -l)
    [ "$count" -ne "$1" ] || break
    sleep 0.1
  done
  echo "$count"
}

# Nothing about the streams, the masks or the surroundings makes a failure a success.
case_streams() {
  bad='4 1 0 551' good='4 1 0 550'
  kiv-check $bad >out 2>/dev/full && expect 'a full standard error' 1 0
  kiv-check $bad >out 2>&- && expect 'a closed standard error' 1 0
  kiv-check $good >/dev/full 2>err
  expect 'a full standard output' 2 "$?"
  kiv-check $good >&- 2>err
  expect 'a closed standard output' 2 "$?"
  for row in "0 $good" "1 $bad"; do
    for _ in 1 2 3 4 5; do
      { kiv-check ${row#* } 2>err; echo $? >status; } | head -1 >out
      expect "a reader that leaves: $row" "${row%% *}" "$(cat status)"
    done
  done
  kiv-check -j /dev/full $good >out 2>err
  expect 'a full record' 2 "$?"
  tools=$(dirname "$(command -v kiv-check)")
  env -i PATH=/nowhere "KIV_STATE_DIR=$room/state" "$tools/kiv-check" -t 5 $good >out 2>err
  expect 'no other program' 0 "$?"
  for value in 0 8 160 296; do
    echo "$mask=$value" >state/properties
    check $bad
    expect "mask $value" 1 "$?"
    check $good
    expect "mask $value" 0 "$?"
  done
  rm state/properties
  check -t 0.3 11 9
  expect 'time-out, processes left' '124 0' "$? $(processes 0 11)"
  for signal in 1 2 9 15; do
    kiv-check -j record 11 9 >/dev/null 2>err &
    expect "signal $signal: processes of a run" 2 "$(processes 2 11)"
    kill -"$signal" $! && wait $! 2>/dev/null
    expect "signal $signal: status, processes left, records" "$((128 + signal)) 0 " \
      "$? $(processes 0 11) $(find . -name record -size +0)"
  done
  kiv-check 11 9 >/dev/null 2>err &
  expect 'processes of a run' 2 "$(processes 2 11)"
  kill -s SEGV "$(cat /proc/$!/task/$!/children)"
  wait $!
  expect 'a command that crashes' '1 1' "$? $(grep -c 'ended by signal 11' err)"
  kiv-check -t 0.3 11 9 2>err | sleep 1 # a reader that takes nothing
  expect 'a reader that takes nothing, processes left' 0 "$(processes 0 11)"
}

save_and_restore() {
  rm -rf state restore.sh saved && path="/oem/it's \"b\" \$x"
  mkdir -p state/nv/0 state/efs/1/oem
  printf '\0\1\377\n' >state/nv/0/551 && head -c 365 /dev/zero >state/nv/0/7
  head -c 365 /dev/urandom >"state/efs/1$path"
  cp -r state saved
  kiv-nv-save -o restore.sh 0 nv 551 nv 7 nv 3000 1 efs "$path" efs /oem/new 2>err
  expect "$shell: save" 0 "$?$(cat err)"
  expect "$shell: restore what is unchanged" 0 "$($shell restore.sh >out 2>&1; echo $?)"
  for change in '2 0 551 9' '3 0 7' '2 0 3000 1' '5 1 /oem/new 1'; do kiv 4 $change >out; done
  kiv 4 5 1 "$path" 1 2 3 >out
  expect "$shell: restore" 0 "$($shell restore.sh >out 2>&1; echo $?)"
  expect "$shell: restored state" '' "$(diff -r saved state 2>&1)"
  echo 'extension.rsp_result = 5' >state/modem.conf
  $shell restore.sh >out 2>err
  expect "$shell: every item is tried" '1 3' "$? $(grep -c 'not put back' err)"
  $shell restore.sh >out 2>&-
  expect "$shell: a failure without standard error" 1 "$?"
  rm state/modem.conf && echo "$mask=0" >state/properties
  $shell restore.sh >out 2>err
  expect "$shell: a mask that hides failures" 1 "$?"
}

case_nv_save() {
  in_each_shell save_and_restore
  expect 'shellcheck restore.sh' '' "$(shellcheck -s sh -e SC2016 restore.sh)"
  rm -f state/properties
  head -c 366 /dev/zero >state/nv/0/8 && head -c 366 /dev/zero >state/efs/1/long && : >state/efs/1/empty
  for row in '1||0 nv 551 nv 8' '1||0 nv 551 1 efs /long' '1||1 efs /empty' '1||0 efs /oem/../x' \
    '2||0 nv 7a' '2||0 nv 7233' '2||nv 7' '2||0' '2||2 nv 7' '2||0 nv' '1|fault.extension = error:3|0 nv 551'; do
    IFS='|' && set -- $row && unset IFS
    echo "$2" >state/modem.conf
    kiv-nv-save -o none $3 2>err
    expect "$row" "$1 1 " "$? $(grep -c kiv-nv-save: err) $(find . -name 'none*')"
    kiv-nv-save -o none $3 2>&-
    expect "$row, no standard error" "$1 " "$? $(find . -name 'none*')"
  done
  rm state/modem.conf
  kiv-nv-save -o err 0 nv 551 2>out
  expect 'a file that is there' 2 "$?"
  kiv-nv-save 0 nv 551 >/dev/full 2>err
  expect 'a full disk' 2 "$?"
  echo "$mask=0" >state/properties
  expect 'masks hide nothing' '0 1' "$(kiv-nv-save 0 nv 551 >out; echo $?) $(grep -c '^put_back no 4 2 0 551 0 1 255 10$' out)"
}

case_watch() {
  kiv-watch 31 0 -i 0.05 -n 3 -o all.csv >out 2>err
  expect 'three samples' '0 3 4 time,tx_power' "$? $(wc -l <out) $(wc -l <all.csv) $(head -1 all.csv)"
  kiv-watch 0 0 -n 1 >out
  expect 'values' 'rsrp_rx3 -87.50' "$(grep -o 'rsrp_rx3 [-0-9.]*' out)"
  command -v script >/dev/null && expect 'bars' 'rsrp_rx3 -87.50 ######......' \
    "$(script -qec 'kiv-watch 0 0 -n 1' /dev/null | grep -o 'rsrp_rx3 .*' | tr -d '\r')"
  echo 'stats.0x52.0 = none' >state/modem.conf
  kiv-watch 0 0 -n 2 -i 0.05 >out 2>err
  expect 'no measurement' '1 2' "$? $(grep -c 'get lyrax data failed' err)"
  for arguments in '' '0' '99 0' '0 2' '0 0 -i x' '0 0 -n 0' '0 0 -n 1.5' '0 0 -o all.csv' '0 0 1'; do
    kiv-watch $arguments >out 2>err
    expect "kiv-watch $arguments" '2 1' "$? $(grep -c kiv-watch: err)"
  done
  kiv-watch 31 0 -n 1 >/dev/full 2>err
  expect 'a full disk' 2 "$?"
  { kiv-watch 31 0 -i 0.05 2>err; echo "$? $(cat err)" >status; } | head -1 >out
  expect 'a reader that leaves' '0 ' "$(cat status)"
}

# The examples of the manual pages.
case_manuals() {
  sed -n '/^\.nf/,/^\.fi/s/^\(kiv\|sh \)/\1/p' "$project"/docs/*.1 "$project/docs/kiv.1.in" | sed 's/\\-/-/g' >list
  expect 'examples' 10 "$(wc -l <list)"
  while read -r line; do
    eval "$line" >out 2>err
    expect "$line" 0 "$?"
  done <list
}

# The command lines that the documents show without an output. The handset that adb reaches is a folder,
# another bench computer a shell.
case_documents() {
  ln -s "$project/examples" . && mkdir -p bin handset/bin handset/data/local/tmp build && ln -s "${PATH%%:*}" build/handset
  cat >bin/adb <<'END'
#!/bin/sh
cd "$HANDSET" && export KIV_STATE_DIR="$PWD/state" PATH="/usr/bin:/bin:$PWD/bin" || exit
case $1 in
  devices) printf 'List of devices attached\n1001\tdevice\n1002\toffline\n' && exit ;;
  push) shift && while [ $# -gt 1 ]; do cp "$OLDPWD/$1" data/local/tmp && shift || exit; done; exit ;;
  -s) [ "$2" = 1001 ] && shift 2 || exit ;;
esac
shift && exec sh -c "$(echo "$*" | sed "s,/data/,$PWD/data/,g")"
END
  cat >handset/bin/setprop <<'END'
#!/bin/sh
mkdir -p "$HANDSET/state" && echo "$1=$2" >"$HANDSET/state/properties"
END
  # The other computer's login sets SHELL, by which parallel starts a job there.
  cat >bin/ssh <<'END'
#!/bin/sh
echo "$1" >>"$HANDSET/logins" && shift 2 && SHELL=/bin/sh exec sh -c "$*"
END
  chmod +x bin/* handset/bin/*
  export HANDSET="$PWD/handset" PARALLEL_SSH="$PWD/bin/ssh" PATH="$PWD/bin:$PATH"
  set -- "$project"/docs/porting.md "$project"/docs/[!p]*.md "$project"/README.md "$project"/CONTRIBUTING.md
  grep -hE '^    (kiv( |$)|adb|examples/)' "$@" | grep -v '<' >list
  while read -r line; do
    rm -rf results handset/data/local/tmp/check
    eval "$line" >out 2>&1
    expect "$line" '0 ' "$? $(grep -E 'note: |FAIL|NOT|^[1-9][0-9]*$' out)"
  done <list
  expect 'lines, the mask, the logins' '11 1 bench' \
    "$(wc -l <list) $(grep -c adb_log_shell=296 handset/state/properties) $(sed 's/[12]$//' handset/logins | sort -u)"
  grep -hoE '^    (scripts/[a-z0-9-]*|c[a-z]* --preset [a-z]*( -R .*)?)' "$@" | sort -u >list
  while read -r script _ preset _ tests; do
    [ -x "$project/$script" ] || grep -q "\"name\": \"$preset\"" "$project/CMakePresets.json" || expect "$script" there missing
    [ "$preset:$tests" = "dev:${tests:-none}" ] || continue
    ctest --test-dir build/handset/ -N -R "$(eval "echo $tests")" | grep -q 'Test *#' || expect "$tests" tests none
  done <list
}

case_example() {
  "$project/examples/factory_check.sh" good >out
  expect 'a healthy handset' '0 9 7' "$? $(grep -c pass out) $(grep -c success good/records.json)"
  rm -rf state/* && echo 'stats.0x52.0 = none' >state/modem.conf
  "$project/examples/factory_check.sh" bad >out
  expect 'no signal' '1 signal ' "$? $(awk '/FAIL/ { print $1 }' out) $(find state/nv state/efs -type f)"
}

# A hundred handsets, some faulty; one hangs, one is pulled off, one has an odd name. The run is ended
# in the middle and typed again.
case_line() {
  cat >reach <<'END'
#!/bin/sh
mkdir -p "units/$1" && cd "units/$1" && mkdir -p state && echo start >>starts || exit
case $1 in
  *bad) echo 'eid = none' >state/modem.conf ;;
  *hang) exec sleep "77.$HANG" ;;
  *gone) echo 'line_check' && exit 255 ;;
esac
export KIV_STATE_DIR="$PWD/state"
exec sh -c "$2"
END
  cat >check.sh <<'END'
kiv-check -t 60 4 2 0 3000 1 2 3 >steps && kiv-check -t 60 5 10 3 0 >>steps 2>&1 || {
  echo 'eSIM FAIL' && sed -n '$p' steps
  false
}
status=$?
printf 'a last line without an end'
exit $status
END
  chmod +x reach && seq -f 'unit-%g' 1 90 >list
  printf '%s\n' a@1.2.3.4:5555 b-hang c-gone 1-bad 2-bad 3-bad 4-bad 5-bad jobs jobs.err >>list
  truncate -s -1 list # the last name has no newline
  export HANG="$$"
  set -- -j 4 -t 15 -r "$PWD/reach {}" -c "sh '$PWD/check.sh' # all of it" results list
  "$project/examples/line_check.sh" "$@" >out 2>err &
  sleep 1
  "$project/examples/line_check.sh" "$@" >other 2>&1
  expect 'one run at a time' 'line_check.sh: another run still writes to results' "$(cat other)"
  kill -s TERM $! && wait $!
  expect 'ended' "143 0" "$? $(processes 0 "77.$$")"
  (cd results/handsets && grep -l '^line_check: ' -- */stdout | sed 's,/stdout,,') >ended
  "$project/examples/line_check.sh" "$@" >out 2>err
  expect 'result' '2 93 good, 5 failed, 2 not finished' "$? $(tail -n 1 out)"
  expect 'a checked handset is not checked again' '' \
    "$(while read -r unit; do echo "$(wc -l <"units/$unit/starts") $unit"; done <ended | grep -v '^1 ')"
  expect 'each handset' 100 "$(find units -name starts | wc -l)"
  expect 'reasons' 5 "$(grep -c '^  kiv-check: failure: .*eSIM' results/summary)"
  expect 'not finished' 'b-hang c-gone' "$(awk '/NOT FINISHED/ { print $3 }' out | xargs)"
  sed -i '/gone/d; /hang/d' reach
  "$project/examples/line_check.sh" "$@" >out 2>err
  expect 'another try' '1 95 good, 5 failed, 0 not finished' "$? $(tail -n 1 out)"
  expect 'a good handset is left alone' 1 "$(wc -l <units/a@1.2.3.4:5555/starts)"
  for row in '' 'results' 'results nothing' '-x 1' '-j 1 results reach' 'results other' 'new gap'; do
    echo only >other && printf '1\n\n2\n' >gap
    "$project/examples/line_check.sh" $row >out 2>err
    expect "line_check.sh $row" 2 "$?"
  done
  expect 'help' '0 0' "$("$project/examples/line_check.sh" --help >out; echo $?) $(
    "$project/examples/factory_check.sh" --help >out; echo $?)"
}

# The outcomes that docs/factory.md tells how to provoke: each row's modem.conf, command and verdict.
case_outcomes() {
  rows=0
  awk -F ' *[|] *' '/^[|].*`kiv / { print $3 "|" $4 "|" $5 }' "$project/docs/factory.md" |
    tr -d '`' >rows
  while IFS='|' read -r conf command verdict; do
    rows=$((rows + 1))
    rm -rf state/* && echo "$conf" >state/modem.conf
    check -t "$([ "$verdict" = 124 ] && echo 1 || echo 20)" ${command#kiv }
    expect "$conf, $command" "$verdict" "$?"
  done <rows
  expect 'rows of the table' 17 "$rows"
}

"case_$1"
exit "$failures"
