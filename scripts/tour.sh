#!/usr/bin/env bash
# A short tour of the client, with a simulated modem that the tour starts and ends. Every command is printed before it
# runs; an unexpected result ends the tour with an error.
# usage: scripts/tour.sh DIRECTORY_OF_THE_PROGRAMS
set -euo pipefail
PATH=$(cd "${1:?usage: scripts/tour.sh DIRECTORY_OF_THE_PROGRAMS}" && pwd):$PATH

directory=$(mktemp -d)
modem=
clean_up() {
  if [ -n "$modem" ]; then
    kill "$modem" 2>/dev/null || true
    wait "$modem" 2>/dev/null || true
  fi
  rm -rf "$directory"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
cd "$directory"
export PELMAR_MODEM=$directory/modem PELMAR_SIM_CONTROL=$directory/storage/control
export PELMAR_PROPERTY_DIR=$directory/properties

bold=
plain=
if [ -t 1 ]; then
  bold=$(printf '\033[1m')
  plain=$(printf '\033[0m')
fi

heading() { printf '\n%s== %s%s\n' "$bold" "$*" "$plain"; }

fail() {
  echo "the tour ended early: $*" >&2
  exit 1
}

# Prints the command as a user would type it.
print_command() {
  local word line='$'
  for word in "$@"; do
    case $word in
      '&') ;;
      *[!A-Za-z0-9_./:@,=+-]* | '') word="'$word'" ;;
    esac
    line+=" $word"
  done
  printf '\n%s%s%s\n' "$bold" "$line" "$plain"
}

show() {
  print_command "$@"
  "$@" || fail "that command failed with status $?"
}

# Runs a command that must fail.
show_refused() {
  local status=0
  print_command "$@"
  "$@" 2>&1 || status=$?
  [ "$status" -ne 0 ] || fail "that command should have been refused"
  echo "(exit status $status)"
}

# Runs a command in the background; its output also goes to a file.
show_beside() {
  local file=$1
  shift
  print_command "$@" "&"
  { "$@" || echo "failed with status $?"; } 2>&1 | tee "$file" &
  beside=$!
}

# wait_for FILE TEXT: waits until the text is in the file.
wait_for() {
  local i
  for ((i = 0; i < 200; ++i)); do
    grep -q "$2" "$1" 2>/dev/null && return 0
    sleep 0.05
  done
  fail "'$2' did not appear"
}

modem_sim serve --socket "$PELMAR_MODEM" --storage "$directory/storage" --exit-when-idle 60 >modem.log 2>&1 &
modem=$!
wait_for modem.log "ready on"

heading "The modem and its services"
show modem_api_test info

heading "NV items: write one, read it back"
show modem_api_test nv write 550 08 12 34 56
show modem_api_test nv read 550
show modem_api_test nv read 550 --json

heading "EFS files, and files of this machine as their content"
echo "a file in the modem" >greeting
show modem_api_test efs-path write /nv/item_files/greeting @greeting
show modem_api_test efs-path read /nv/item_files/greeting

heading "RF NV items"
show modem_api_test rfnv write 20000 --text calibration
show modem_api_test rfnv read 20000

heading "An item has at most 256 bytes: a write of 257 is refused"
head -c 257 /dev/zero >too-long
show_refused modem_api_test nv write 551 @too-long

heading "A pass-through command, synchronous and asynchronous"
show modem_api_test raw 01 02 03
show modem_api_test raw --async --text ping

heading "The cells of both subscriptions"
show modem_api_test cell-info

heading "An event arrives"
show_beside events modem_api_test events --count 1 --for 20
wait_for events following
show modem_sim ctl event 3 1 record 0:0x1001:0102030405
wait "$beside"
grep -q "event 3" events || fail "no event came"

heading "A restart of the SAR service: the client's connection comes back, and it sets the state again"
show_beside sar modem_api_test sar set 3 --hold 4
wait_for sar "state 3 set"
show modem_sim ctl service sar down
wait_for sar "service down"
show modem_sim ctl service sar up
wait "$beside"
grep -q "set again" sar || fail "the SAR client did not come back"

heading "The signal during four seconds of a drive"
show modem_api_test signal --watch --rate 10 --for 4

heading "End of the tour. './run --help' lists the commands; './run ARGUMENTS...' runs one."
