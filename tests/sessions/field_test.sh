#!/usr/bin/env bash
# Records a hub with the tools that are used on a device, makes a session of that, and sees that it
# gives the same events and log again, and that a log that says otherwise is noticed. Run by ctest
# with the directory of the programs.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
export PATH=$1:$PATH PROGRAMS=$1
kept=$(mktemp -d "${TMPDIR:-/tmp}/shd-field.XXXXXX")
export SHD_ROOT=$kept/root
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$kept"' EXIT
mkdir "$SHD_ROOT"

# until_true COMMAND...: waits for it for a minute
until_true() {
    for _ in {1..600}; do
        ! "$@" >/dev/null 2>&1 || return 0
        sleep 0.1
    done
    echo "never happened: $*"
    exit 1
}

mcusim --boot-delay 0 </dev/null >/dev/null &
until_true mcusim --send stats
shdtool tap --quiet -o "$kept/line" >/dev/null 2>&1 &
tap=$!
until_true test -e "$SHD_ROOT/dev/ttyHSL1.untapped"
until_true test -e "$SHD_ROOT/proc/mcu/gpio_mcu_reset.untapped"
TZ=Asia/Kolkata shd >/dev/null 2>"$kept/log" &
daemon=$!
until_true grep -q 'start loop' "$kept/log"
shdtool record "$kept/events" >/dev/null 2>&1 &
recorder=$!
until_true test -e "$kept/events"
for command in 'enable accelerometer --rate 50 --batch 5' 'enable step-detector' \
    'enable game-rotation-vector --rate 20' 'enable motion-health --period 1000' \
    'info gyroscope' 'flush accelerometer' 'calibrate accelerometer'; do
    # shellcheck disable=SC2086
    shdtool $command >/dev/null
done
mcusim --send 'log all is well' --send 'steps +3' --send crash >/dev/null
until_true grep -q 'AcquiredLocked :1' "$kept/log"
shdtool info gyroscope >/dev/null 2>&1 || true # refused: the MCU is away
until_true grep -q 'AcquiredLocked :0' "$kept/log"
shdtool disable accelerometer >/dev/null
kill -INT $recorder
kill $daemon $tap
wait $recorder $daemon $tap || true

# As it stands in one that takes longer than a minute: both clocks, in front of the first event.
{
    head -c 32 "$kept/events"
    printf '\203\0\012'
    tail -c +33 "$kept/events"
} >"$kept/longer"

make() {
    rm -f "$kept/made.session"
    python3 -B "$here/record.py" "$kept/made.session" --line "$kept/line" --log "$1" \
        --events "$kept/longer"
}
make "$kept/log" | tee "$kept/said"
grep -Eq 'all [1-9][0-9]* lines of the log came again' "$kept/said"
grep -Eq 'all [1-9][0-9]* events came again' "$kept/said"
for text in 'ProcessVirtualSensor type:18' 'in reboot ignore sensor   17' 'file data/mcudumplog'; do
    grep -q "$text" "$kept/made.session" || { echo "missing: $text" && exit 1; }
done

sed 's/Handshake OK/Handshake so la la/' "$kept/log" >"$kept/other"
make "$kept/other" | tee "$kept/said"
grep -q 'expected D shd     : Handshake so la la' "$kept/said"
