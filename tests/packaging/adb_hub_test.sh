#!/usr/bin/env bash
# scripts/adb-hub in front of a stand-in adb and a hub of its own: shdtool works on the tree it makes,
# and nothing is left when it ends. Usage: adb_hub_test.sh DIRECTORY (of the programs); by ctest.
set -euo pipefail
cd "$(dirname "$0")/../.."
bin=${1:?usage: adb_hub_test.sh DIRECTORY}
source tests/packaging/hub.sh

export DEVICE=$work/device PATH=$PWD/tests/packaging/stand-in:$PATH
start_board "$DEVICE"
start_daemon "$DEVICE" "$bin/shd"
"$bin/shdtool" --root "$DEVICE" loglevel 3
mkdir -p "$DEVICE/data/mcudumplog"
echo dump >"$DEVICE/data/mcudumplog/mcudump_0"

echo "error: device unauthorized." >"$DEVICE.trouble"
! scripts/adb-hub 2>"$work/said" || fail "a device that is not there is one"
grep -q unauthorized "$work/said" || fail "no reason: $(cat "$work/said")"
rm "$DEVICE.trouble"

mkdir "$work/with space"
TMPDIR="$work/with space" scripts/adb-hub --refresh 1 >"$work/adb-hub.log" 2>&1 &
hub=$!
pids+=("$hub")
eventually "it says where the hub is" grep -q SHD_ROOT= "$work/adb-hub.log"
printed=$(grep -o 'SHD_ROOT=.*' "$work/adb-hub.log")
eval "tree=${printed#SHD_ROOT=}"

events_flow "$tree"
export SHD_BOOT_AHEAD_NS=${SHD_BOOT_AHEAD_NS:-0}
times=$("$bin/shdtool" --root "$tree" watch accelerometer --count 1 --json |
    sed -nE 's/.*"timestamp_ns":([0-9]+),"arrival_ns":([0-9]+).*/\2 - \1/p')
[ $(((times) / 60000000000)) -eq 833 ] || fail "not on the device's clock: $times ns, not 50000 s"
"$bin/shdtool" --root "$tree" status >"$work/status"
for line in "UART" "firmware image" "persist.velmar.shd.mculog"; do
    grep -q "^ok  *$line" "$work/status" || fail "status: $line: $(cat "$work/status")"
done
grep -q "start loop" "$tree/shd.log" || fail "the log is not followed"
cmp "$DEVICE/data/mcudumplog/mcudump_0" "$tree/data/mcudumplog/mcudump_0"
"$bin/shdtool" --root "$tree" loglevel 1
eventually "a changed property is pulled" grep -qx 1 "$tree/data/property/persist.velmar.shd.mculog"
rm "$DEVICE/data/mcudumplog/mcudump_0"
eventually "a dump that is gone goes here, too" test ! -e "$tree/data/mcudumplog/mcudump_0"

kill "$hub"
wait "$hub" && fail "it does not end by a signal"
[ ! -e "$tree" ] || fail "$tree is left"
for socket in shdctl shddata; do
    grep -qx "forward localfilesystem:$tree/dev/socket/$socket localreserved:$socket" "$DEVICE.adb" ||
        fail "$socket was not forwarded"
    grep -qx "forward --remove localfilesystem:$tree/dev/socket/$socket" "$DEVICE.adb" ||
        fail "$socket stays forwarded"
done

# follow_again: another one, until it follows the log.
follow_again() {
    rm "$DEVICE.logcat"
    TMPDIR=$work/killed scripts/adb-hub --refresh 600 >"$work/adb-hub.log" 2>&1 &
    pids+=($!)
    eventually "it follows the log again" grep -q . "$DEVICE.logcat"
}
mkdir "$work/killed"
follow_again
kill -KILL "${pids[-1]}"
logcat_ended() { ! kill -0 "$(cat "$DEVICE.logcat")"; }
eventually "it takes its children along" logcat_ended
follow_again
trees=("$work"/killed/*)
[ ${#trees[@]} -eq 1 ] || fail "the next one leaves it: ${trees[*]}"
kill "$(cat "$DEVICE.logcat")"
eventually "it ends with the device, not with the next pull" grep -q "went away" "$work/adb-hub.log"
