#!/bin/bash
# stm32flash, a program of others, erases, writes, verifies, reads and protects the simulated part
# over its line. Usage: stm32flash_test.sh BINARY_DIRECTORY (the one that holds mcusim).
set -euo pipefail

readonly kImageSize=204800 kFlashSize=524288 kFlashBase=0x08000000
bin=${1:?usage: stm32flash_test.sh BINARY_DIRECTORY}
if ! command -v stm32flash >/dev/null; then
    echo "skipped: stm32flash is not installed (scripts/setup installs it)"
    exit 77
fi
work=$(mktemp -d)
root=$work/root
sim=

cleanup() {
    if [[ -n $sim ]]; then
        kill "$sim" 2>/dev/null || true
        wait "$sim" || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "stm32flash_test: $*" >&2
    cat "$work"/*.log >&2
    exit 1
}

line() { printf '%s' "$2" >"$root/proc/mcu/gpio_mcu_$1"; }

enter_bootloader() {
    line boot1 0
    line boot0 1
    line reset 0
    sleep 0.02
    line reset 1
    sleep 0.08
}

# A pty carries no parity bit, hence 8n1.
flash() { timeout 120 stm32flash -m 8n1 "$@" "$root/dev/ttyHSL1" >"$work/stm32flash.log" 2>&1; }

# check WHAT FILE: the part's first bytes, as stm32flash reads them and as they lie in the flash
# file of the simulator, are those of FILE.
check() {
    local size
    size=$(stat -c %s "$2")
    rm -f "$work/back"
    flash -c -r "$work/back" -S "$kFlashBase:$size" || fail "$1: cannot be read"
    cmp "$work/back" "$2" || fail "$1: stm32flash reads something else"
    cmp -n "$size" "$root/mcusim/flash.bin" "$2" || fail "$1: the flash holds something else"
}

head -c "$kImageSize" /dev/urandom >"$work/image"
head -c "$kFlashSize" /dev/zero | tr '\0' '\377' >"$work/blank"

"$bin/mcusim" --root "$root" --baud 0 --flash-time-scale 0.05 >"$work/mcusim.log" 2>&1 </dev/null &
sim=$!
timeout 30 sh -c "until grep -q ready '$work/mcusim.log'; do sleep 0.05; done" || fail "no simulator"

enter_bootloader
flash -o || fail "mass erase"
check "erased part" "$work/blank"
flash -c -w "$work/image" -v || fail "write and verify"
check "written part" "$work/image"
flash -c -j || fail "readout protection"
flash -r "$work/leaked" && fail "a protected part can be read"
flash -c -k || fail "readout unprotection"
enter_bootloader
flash || fail "handshake"
check "part after the end of its protection" "$work/blank"
