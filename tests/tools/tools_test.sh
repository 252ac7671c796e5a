#!/bin/sh
# Tests of the scripts in tools/ and examples/: tools_test.sh CASE, with KIV the kiv to run.
# shellcheck disable=SC2317,SC2086 # cases are called by name; shells and rows have arguments
set -u
project=$(cd "$(dirname "$0")/../.." && pwd)
room=$(mktemp -d)
trap 'rm -rf "$room"' EXIT
export KIV_STATE_DIR="$room/state" TMPDIR="$room/tmp"
cd "$room" && mkdir state tmp || exit 1
real_kiv=${KIV-} shell='sh' failures=0

expect() { # WHAT WANTED GOT
  [ "$2" != "$3" ] || return 0
  printf 'FAILED: %s\n  wanted: %s\n  got:    %s\n' "$1" "$2" "$3"
  failures=1
}

check() { $shell "$project/tools/kiv-check" "$@" >out 2>err; }
nv_save() { $shell "$project/tools/kiv-nv-save" "$@" >out 2>err; }

# Calls $1 for each shell that is installed.
in_each_shell() {
  for shell in 'sh' dash 'bash --posix' 'busybox sh' mksh; do
    ! command -v "${shell%% *}" >/dev/null || "$1"
  done
}

# Makes KIV a program that does as it is told.
fake_kiv() {
  export KIV="$room/fake_kiv"
  cat >"$KIV" <<'END'
#!/bin/sh
case $1 in
  3) printf '] %s\n' TERVIK_MANUFACTURER_ID 'tervik_gpio_test_get: tervik_gpio_test_get' \
    'note: Cmd error' '== blew: kivora(kiv) cmd help' ;;
  bytes) printf 'a\0\377b\n' && printf 'e\n' >&2 && printf last ;;
  live) echo first && read -r _ <go && echo second ;;
  hang) sleep "$2" & sleep "$2" ;;
  die) kill -s SEGV $$ ;;
  say) shift && printf '%s\n' "$@" ;;
esac
END
  chmod +x "$KIV"
}

case_lint() {
  cd "$project" || return
  expect shellcheck '' "$(shellcheck -s sh tools/* examples/*.sh tests/tools/*.sh)"
  expect 'man pages' '' "$(groff -man -Tutf8 -ww -z docs/*.1 2>&1)"
}

# Prints "file: text" of each log statement in the sources that matches $1, its conversions made $2.
statements() {
  awk -v RS=';' -v wanted="$1" -v value="$2" '
    match($0, /tervik_log_(print|write|error|notice|debug|help)(_as)?\(/) {
      statement = substr($0, RSTART)
      if (statement !~ wanted) next
      text = ""
      while (match(statement, /"([^"\\]|\\.)*"/)) {
        text = text substr(statement, RSTART + 1, RLENGTH - 2)
        statement = substr(statement, RSTART + RLENGTH)
      }
      sub(/^%s/, "", text)
      gsub(/%[-0-9.]*[lz]*[a-zA-Z]/, value, text)
      if (text != "") print FILENAME ": " text
    }' hal*/*/*.cpp hal*/*/src/*.cpp
}

# Error-class lines that are no failure of the run, and why.
no_failures='modem_lyrax_(api|mgr)|vs_client = category 9 tells the outcome; Tx power needs but one sub
pdc_utils.*(init done|NULL pointer|ind_data_len|active_config|c_struct|no_rsp|timer_id) = who waits tells
pdc_utils.*retry times = one attempt of many; "pdc init failed" follows the last
mbn_utils.*NOTICE!!! = the operator asked for it
utils_cmn.*(fopen fail|fgets fail|should be name) = nothing but the name of the process is missing
(utils_cmn|utils_timer|pdc_utils|test_cmn).*( is null| is NULL|len_max is invalid) = no command line does it
utils_timer.*Not find the timer = the timer is over already'
# Lines of other classes that are, because no line of the error class tells of these failures.
failing_traces='qmi_client_send_msg_sync fail,|tervik_extend_qmi_send_sync fail|LSM init failed|Not support|'\
'Could not register with DCI|Error sending SEND_REQUEST|t_rsp != t|l_rsp is out of range'

case_patterns() {
  cd "$project" || return
  eval "$(sed -n '/^reports_failure()/,/^}/p' tools/kiv-check)"
  statements 'tervik_log_error|LOG_CLASS_ERROR' 1 >"$room/errors"
  grep -rhoE '"(note: |tervik_test_[a-z_]* FAIL|tervik_efs_[a-z]* failed)[^"]*' hal |
    sed 's/^"/table: /;s/%d/1/g' >>"$room/errors"
  statements 'tervik_log_(notice|debug|help)|LOG_CLASS_(NOTICE|DEBUG|HELP)' 0 >"$room/others"
  grep -oE '"(Do nothing, No |ignore this )[^"]*' hal/mbn/pdc_utils.cpp | sed 's/"/table: /' >>"$room/others"
  cd "$room" && printf '%s\n' "$no_failures" | sed 's/ = .*//' >patterns
  while read -r pattern; do
    grep -qE "$pattern" errors || expect "lines that are exempt: $pattern" some none
  done <patterns
  { grep -vEf patterns errors && grep -E "$failing_traces" others; } >wanted
  { grep -Ef patterns errors && grep -vE "$failing_traces" others; } >unwanted
  expect 'enough statements' 'yes yes' "$(awk 'END { print (NR > 100 ? "yes" : NR) }' wanted) $(
    awk 'END { print (NR > 300 ? "yes" : NR) }' unwanted)"
  while read -r line; do reports_failure f "${line#*: }" '' || expect "$line" failure none; done <wanted
  while read -r line; do ! reports_failure f "${line#*: }" '' || expect "$line" none failure; done <unwanted
}

healthy='3 0 1 0 1|3 3 1 4 0x3|4 1 0 550|5 0 0 0 1000 0x7C|5 0 0 1 0 0x4B|5 0 1 1 0 0x4B|5 1|5 5|5 8
5 10 1 0|5 10 1 1|5 10 4 1|6 4 0x02 0 0 0|7 0 1|7 1 0|7 1 1|9 0 0|10 0 3|10 1 3|11 0|11 2|11 4 1|11 11 5|12 1'
# arguments|what modem.conf says|text of the failing line
failing='1||Not support
13||=========== blew: kivora(kiv) cmd help =======================================================
4 1 0 551||tervik_extend_qmi_send_sync fail, REQUEST_ID_EFS
4 7||note: the second parameters is invalid, Pls refer to the following cmd:;7 2 0||invalid type = 2
8 a b||note: The number of inputs should be 2, Pls refer to the following cmd:
9 13 0||tervik_test_qmi_modem_stats_hdl: Unknown opt(13), sub(0);10 0 4||sub_mask is out of range
11 4 2||note: opt(2) is invalid:;5 0 0 1 0 0x4B|fault.diag = down|LSM init failed
5 0 0 1 0 0x4B|fault.diag = error:5|ret_send = 5, will wait callback
4 2 0 550 1|fault.extension = error:7|send msg sync failed: 7, id: 2
5 1|extension.rsp_result = 7|rsp.result fail;11 0|extension.rsp_result = 7|result = 0, rsp.result = 7
11 2|extension.rsp_result = 7|tervik_send_common_qmi_msg, ret_sync: 0, rsp.result: 7
11 11 5|extension.rsp_result = 7|result = 0, rsp.result = 7;5 5|fault.sar = error:9|Modem SAR DSI: -1
5 10 1 0|eid = 89001017000000000000000000000164|value=FAILED - 89001017000000000000000000000164
7 1 0|stats.enable = 0|================ CLOSED ===================
9 0 0|fault.vs = error:4|get lyrax data failed;9 31 5|fault.vs = error:4|TX INFO: tx_power = 65535
10 0 1|fault.pdc = result:4|SUB_0 pdc_activate_config_ex ret -1
10 1 1|pdc.ind_error = 4|SUB_0 pdc_get_current_config_ex ret_val -1
12 0|fault.nas = error:9|qmi_client_send_msg_sync fail, qmi_client_error = 9'

case_verdicts() {
  printf '%s\n' "$healthy" | tr '|' '\n' >rows
  printf '%s\n' '9 31 5|rat.1 = 3|' "$failing" | tr ';' '\n' >>rows
  while IFS='|' read -r arguments conf line; do
    rm -rf state record && mkdir state
    printf '%s\n' "$conf" >state/modem.conf
    check -t 20 -j record $arguments
    got="$? $(sed 's/.*"verdict":"//;s/,"kiv_status.*//
      s/","failing_line":/ /;s/RIL\[[^]]*\] [^ ]*: //;s/"//g' record)" wanted=${line:+1 failure $line}
    expect "$conf|$arguments" "${wanted:-0 success null}" "$got"
  done <rows
}

# The number of processes that have to do with a run of `hang`, once it is $1.
hanging() {
  for _ in 1 2 3 4 5 6 7 8 9 10; do
    count=$(grep -lzx "77[.]$$" /proc/[0-9]*/cmdline 2>/dev/null | wc -l)
    [ "$count" -ne "$1" ] || break
    sleep 0.1
  done
  echo "$count"
}

# First: what the modem or the operator brings into a line neither makes nor hides a failure.
run() {
  answer=$(printf 'note: x\nRIL[a.cpp:1] f: note: x\nvalue=FAILED') at='RIL[tervik_kiv_at_cmd.cpp:1]'
  for row in '0 Success 0' '0 Fail 1' '40 Success 1' '40 Fail 1'; do
    set -- $row
    check say "$at tervik_test_at_cmd_send: at shell cmd: echo" "RIL[a.cpp:1] f: g" \
      "$at tervik_test_at_cmd_receive: Receive the AT reponse: len($((${#answer} + $1)))" \
      "$at tervik_test_at_cmd_receive: $answer" "$at tervik_test_at_cmd_send: $2 to send at shell cmd"
    expect "$shell: $2, answer shorter than told by $1" "$3" "$?"
  done
  check say 'RIL[a.cpp:1] f: path_value: RIL[a.cpp:1] f: note: x' ' value=FAILED' 'a: note: x'
  expect "$shell: failures inside lines" 0 "$?"
  check bytes
  expect "$shell: bytes" 0 "$?$(printf 'a\0\377b\nlast' | cmp - out)$(echo e | cmp - err)"
  live=$($shell "$project/tools/kiv-check" -t 5 live | { read -r line && echo >go && cat; })
  expect "$shell: a line passes while kiv runs" second "$live"
  check -t 0.1 hang "77.$$"
  expect "$shell: time-out, processes left" '124 0' "$? $(hanging 0)"
  $shell "$project/tools/kiv-check" hang "77.$$" 2>err &
  expect "$shell: processes of a run" 5 "$(hanging 5)" # with kiv-check itself, and its reader
  kill -s TERM $! && wait $! 2>/dev/null
  expect "$shell: TERM, processes left" '143 0' "$? $(hanging 0)$(cat err)"
  rm -f record && check -j record die
  check -j record say 'a "b\c"' "$(printf '\303\251')" '' 'RIL[x.cpp:1] f: note: "\q'
  expect "$shell: records" '{"arguments":["die"],"verdict":"failure","failing_line":null,"kiv_status":139,
{"arguments":["say","a \"b\\c\"","\u00c3\u00a9","","RIL[x.cpp:1] f: note: \"\\q"],"verdict":"failure","failing_line":"RIL[x.cpp:1] f: note: \"\\q","kiv_status":0,' \
    "$(sed 's/"elapsed_ms":[0-9]*}$//' record)"
  expect "$shell: temporary files" '' "$(ls "$TMPDIR")"
}

case_run() {
  fake_kiv && mkfifo go
  in_each_shell run
  shell='sh' long=$(printf '%02000d' 0)
  for _ in 1 2 3 4 5 6; do check -j many say "$long" "$long" "$long" & done
  wait
  expect 'records at once' 6 "$(grep -c '^{"arguments":\["say",.*"elapsed_ms":[0-9]*}$' many)"
  for arguments in '' '-x 4' '-t 0 4' '-t x 4' '-t 1.5.1 4' '-j /nowhere/record 4'; do
    check $arguments
    expect "kiv-check $arguments" 2 "$?"
  done
  KIV=$real_kiv
  # Without errors, and without traces, by which a restart is judged but a read is not.
  for row in '160=2=4 1 0 550' '296=0=4 1 0 550' '296=1=4 1 0 551' '296=2=11 0'; do
    IFS='=' && set -- $row && unset IFS
    echo "persist.vendor.radio.adb_log_shell=$1" >state/properties
    check $3
    expect "mask $1: $3" "$2" "$?"
  done
}

save_and_restore() {
  rm -rf state restore.sh saved && path="/oem/it's \"b\""
  mkdir -p state/nv/0 state/efs/1/oem
  printf '\0\1\377\n' >state/nv/0/550 && head -c 365 /dev/zero >state/nv/0/7
  head -c 364 /dev/urandom >"state/efs/1$path"
  cp -r state saved
  nv_save -o restore.sh 0 nv 550 nv 7 nv 3000 1 efs "$path" efs /oem/new
  expect "$shell: save" 0 "$?$(cat err)"
  expect "$shell: restore what is unchanged" 0 "$($shell restore.sh >out 2>&1; echo $?)"
  for change in '2 0 550 9' '3 0 7' '2 0 3000 1' '5 1 /oem/new 1'; do "$KIV" 4 $change >out; done
  "$KIV" 4 5 1 "$path" 1 2 3 >out
  expect "$shell: restore" 0 "$($shell restore.sh >out 2>&1; echo $?)"
  expect "$shell: restored state" '' "$(diff -r saved state 2>&1)"
  echo 'extension.rsp_result = 5' >state/modem.conf
  expect "$shell: restore ends at the first failure" 1 "$($shell restore.sh 2>&1 >out | grep -c failed)"
}

case_nv_save() {
  in_each_shell save_and_restore
  shell='sh'
  expect 'shellcheck restore.sh' '' "$(shellcheck -s sh restore.sh)"
  head -c 366 /dev/zero >state/nv/0/8 && head -c 365 /dev/zero >state/efs/1/long && : >state/efs/1/empty
  mask='persist.vendor.radio.adb_log_shell'
  for row in '1||0 nv 550 nv 8' '1||0 nv 550 1 efs /long' '1||1 efs /empty' '1||0 efs /oem/../x' \
    '2||0 nv 7a' '2||nv 7' '2||0' '2||2 nv 7' "1|$mask=8|0 nv 550" "1|$mask=296|0 nv 7" \
    '1|fault.extension = error:3|0 nv 550'; do
    IFS='|' && set -- $row && unset IFS
    echo "$2" | tee state/modem.conf >state/properties
    nv_save -o none $3
    expect "$row" "$1 1 " "$? $(grep -c kiv-nv-save: err) $(find . -name 'none*')"
  done
  nv_save -o err 0 nv 550
  expect 'a file that is there' 2 "$?"
}

case_example() {
  "$project/examples/factory_check.sh" good >out
  expect 'a healthy handset' '0 9 7' "$? $(grep -c pass out) $(grep -c success good/records.json)"
  rm -rf state/* && echo 'stats.0x52.0 = none' >state/modem.conf
  "$project/examples/factory_check.sh" bad >out
  expect 'no signal' '1 signal ' "$? $(awk '/FAIL/ { print $1 }' out) $(find state/nv state/efs -type f)"
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
    expect "$conf, $command" "$verdict " "$? $(grep -v 'timeout, kiv ended' err)"
  done <rows
  expect 'rows of the table' 11 "$rows"
}

"case_$1"
exit "$failures"
