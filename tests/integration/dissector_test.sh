#!/usr/bin/env bash
# Every field of a session's frames by name, as a protocol analyser shows them: an update, sensors,
# a crash. Argument: the directory of the binaries. Skipped (77) where there is no tshark.
set -euo pipefail
bin=$(cd "$1" && pwd)
dissector=$(cd "$(dirname "$0")/../.." && pwd)/tools/tap/shd_line.lua
command -v tshark >/dev/null || { echo "tshark is not installed"; exit 77; }

work=$(mktemp -d)
pids=()
trap 'kill "${pids[@]}" 2>/dev/null; rm -rf "$work"' EXIT
export SHD_ROOT=$work/root TERM=dumb
wait_for() {
    for _ in $(seq 600); do
        if "$@" >/dev/null 2>&1; then return; fi
        sleep 0.1
    done
    echo "never happened: $*" >&2
    exit 1
}

"$bin/mcusim" --root "$SHD_ROOT" --blank --baud 0 --record "$work/session.line" \
    >"$work/mcusim.log" 2>&1 &
pids+=($!)
wait_for test -e "$SHD_ROOT/dev/ttyHSL1"
"$bin/shd" 2>"$work/shd.log" &
pids+=($!)
wait_for grep -q "start loop" "$work/shd.log"
"$bin/shdtool" enable accelerometer --rate 50 --batch 5 >/dev/null
"$bin/shdtool" enable heart-rate >/dev/null
"$bin/shdtool" version >/dev/null
wait_for grep -q "< 010232" "$work/session.line"
"$bin/shdtool" flush accelerometer >/dev/null
"$bin/shdtool" disable accelerometer >/dev/null
"$bin/mcusim" --root "$SHD_ROOT" --send crash >/dev/null
wait_for grep -q "sensor:27 not enable" "$work/shd.log"

"$bin/shdtool" tap --from "$work/session.line" --pcapng "$work/session.pcapng" --quiet
read_capture() { tshark -X "lua_script:$dissector" -r "$work/session.pcapng" "$@" 2>"$work/errors"; }
read_capture -V >"$work/fields"
if grep -iE "lua.*error|malformed|exception" "$work/errors" "$work/fields"; then exit 1; fi

# Filters that each find something, and two that find nothing.
while read -r filter; do
    [ -n "$(read_capture -Y "$filter")" ] || { echo "nothing matches: $filter"; exit 1; }
done <<'EOF'
shd_line.boot_command == 0x44
shd_line.boot_erase == 0xffff
shd_line.boot_address == 0x08000000 && shd_line.boot_checksum == 0x08
shd_line.boot_length == 255
shd_line.boot_answer == 0x79
shd_line.pin == 0 && shd_line.level == 1
shd_line.type == 0 && shd_line.service == 15
shd_line.text contains "SIM.900"
shd_line.period_ms == 20 && shd_line.batch_count == 5 && shd_line.batch_extra == 0
shd_line.service == 16 && shd_line.command == 19 && shd_line.calibration == 00:00:00:00:00:00
shd_line.service == 16 && shd_line.type == 2 && shd_line.z
shd_line.bpm && shd_line.heart_status
shd_line.command == 4 && shd_line.pending && shd_line.status == 0
shd_line.dump_reset && shd_line.dump_index == 1
EOF
for filter in shd_line.damaged shd_line.short; do
    [ -z "$(read_capture -Y "$filter")" ] || { echo "unexpected: $filter"; exit 1; }
done
