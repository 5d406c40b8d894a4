#!/bin/bash
# Measures what a firmware update takes on the line's real speed, what its bytes need, and what
# stm32flash takes for the same; fails when the update takes half as long again as its bytes need, or
# less than they do. ctest runs it on a small payload. Usage: update_timing.sh BINARY_DIRECTORY [KIB]
set -euo pipefail

readonly kPayloadBytes=$((${2:-200} * 1024)) kBlockBytes=256 kBaud=115200 kBitsPerByte=11 kEraseMs=4000
readonly kWordProgramUs=16 kSettleMs=2012 # what mcusim takes; the daemon's wait after the update
bin=${1:?usage: update_timing.sh BINARY_DIRECTORY [KIB]}
work=$(mktemp -d)
root=$work/root
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$work"' EXIT

# await FILE TEXT
await() { timeout 120 sh -c "until grep -q '$2' '$1'; do sleep 0.05; done"; }

# logged TEXT: the milliseconds of the day at which the daemon logged it.
logged() {
    grep -m 1 "$1" "$work/shd.log" |
        awk '{ split($2, t, /[:.]/); print ((t[1] * 60 + t[2]) * 60 + t[3]) * 1000 + t[4] }'
}

flash() { stm32flash -m 8n1 "$@" "$root/dev/ttyHSL1" >"$work/stm32flash.log" 2>&1; }

head -c "$kPayloadBytes" /dev/urandom >"$work/payload"
"$bin/mcusim" --root "$root" >"$work/mcusim.log" 2>&1 </dev/null &
await "$work/mcusim.log" ready
"$bin/shdtool" image build --version TIME.900.1 --payload "$work/payload" -o "$work/mcu.bin" >/dev/null 2>&1 ||
    [ $? = 1 ] # random bytes are no firmware, but an image all the same
mv "$work/mcu.bin" "$root/system/bin/mcu.bin"
SHD_ROOT=$root "$bin/shd" 2>"$work/shd.log" >/dev/null &
shd=$!
await "$work/shd.log" 'mcu_update ok!'
kill "$shd"
measured=$(($(logged 'mcu_update ok!') - $(logged 'mcu_update enter!') - kSettleMs))
cmp -n "$kPayloadBytes" "$root/mcusim/flash.bin" "$work/payload"

blocks=$((kPayloadBytes / kBlockBytes))
bytes=$((9 + blocks * (2 + 5 + kBlockBytes + 2 + 3))) # handshake and erase; each block, three ACKs
needed=$((bytes * kBitsPerByte * 1000 / kBaud + kEraseMs))
needed=$((needed + kPayloadBytes * kWordProgramUs / 4000))
awk -v m="$measured" -v n="$needed" 'BEGIN { printf "shd: %d ms; its bytes, erase and programming need %d ms: %+.1f %%\n", m, n, (m / n - 1) * 100 }'
if ((measured * 100 < needed * 99 || measured * 2 > needed * 3)); then
    echo "update_timing: outside of 0.99 to 1.5 times what the bytes need" >&2
    exit 1
fi

if ! command -v stm32flash >/dev/null; then
    echo "stm32flash is not installed: nothing to compare with"
    exit 0
fi
start=$(date +%s%3N)
for setting in 'boot0 1 0' 'reset 0 0.02' 'reset 1 0.08'; do # the daemon's own pauses
    read -r pin level pause <<<"$setting"
    printf '%s' "$level" >"$root/proc/mcu/gpio_mcu_$pin"
    sleep "$pause"
done
flash -o
flash -c -e 0 -w "$work/payload"
echo "stm32flash: $(($(date +%s%3N) - start)) ms for the reset, the mass erase and the same payload"
