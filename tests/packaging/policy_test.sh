#!/usr/bin/env bash
# Compiles the hub's policy in front of and behind a minimal base, and sees that the base's limits
# hold: with one right too many, or one type too few, it must be refused. Called by ctest.
set -euo pipefail
cd "$(dirname "$0")/../.."
policy=android/sepolicy/private
base=tests/packaging/sepolicy
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# compile SED_SCRIPT: the policy, its rules and types edited first.
compile() {
    {
        m4 "$base/begin.te"
        cat android/sepolicy/public/attributes
        sed -E "$1" "$policy/types.te" "$policy/shd.te" | m4 "$base/begin.te" - | sed '1,/^type hal_/d'
        cat "$base/end.te" "$policy/genfs_contexts"
    } >"$work/policy.conf"
    checkpolicy -M -c 30 -o "$work/policy" "$work/policy.conf" >"$work/log" 2>&1
}

failed=0
compile '' || { echo "the policy does not compile:" && cat "$work/log" && exit 1; }
# refused WHAT SED_SCRIPT
refused() {
    ! compile "$2" || { echo "not refused: $1" && failed=1; }
}
refused "a right that no class has" 's/\{ open write \}/{ open wrong }/'
refused "a type that nobody declares" '/^type proc_mcu,/d'
refused "a label of /proc that nobody declares" '/proc_mcusleep/d'
refused "a capability" 's/^# tools.client.*/allow shd self:capability sys_rawio;/'
refused "changing the firmware" 's/(shd_firmware_file:file \{ open read)/\1 append/'
refused "a client on the UART" 's/^# tools.client.*/allow shd_client shd_uart_device:chr_file read;/'
while read -r type attributes; do
    for attribute in $attributes; do
        refused "$type without $attribute" "/^type $type,/s/, $attribute([,;])/\1/"
    done
done < <(sed -nE 's/^type (.*);/\1/p' "$policy"/*.te | tr -d ,)
exit "$failed"
