#!/usr/bin/env bash
# The packages, installed into a clean root: the installed daemon serves events on the sockets of its
# units, as a service manager hands them over, and the removal leaves nothing.
# Usage: package_test.sh BUILD_DIRECTORY/packages; called by scripts/check, as root.
set -euo pipefail
umask 022
cd "$(dirname "$0")/../.."
packages=$(realpath "${1:?usage: package_test.sh BUILD_DIRECTORY/packages}")
source tests/packaging/hub.sh
root=$work/root
bin=$root/usr/bin

[ "$EUID" -eq 0 ] || fail "installing packages takes root"
mkdir -p "$root"/{etc/systemd/system,nvdata,data/logdata} "$root"/var/lib/dpkg/{info,updates} "$root"/proc/{mcu,mcusleep}
touch "$root/var/lib/dpkg/status" "$root/etc/passwd" "$root/etc/group" "$root/etc/shadow" \
    "$root/etc/gshadow"
echo "sensors:x:7777:" >"$root/etc/group" # made by somebody else
touch "$root/data/logdata/others"
echo 0 >"$root/proc/mcusleep/lpm"
echo 5 >"$root/nvdata/BARO" # of an earlier installation, whose user had another number
chown 12345 "$root/nvdata/BARO"
find "$root" -not -path "$root/var*" | sort >"$work/before"

for package in "$packages"/*.deb; do
    ! dpkg-deb -c "$package" | grep '^d' | grep -v '^drwxr-xr-x' || fail "$package: not for everybody"
done

# on_root OPTION...: dpkg on the root; the scripts run outside and are told by DPKG_ROOT.
on_root() {
    dpkg --root="$root" --force-depends --force-script-chrootless --log=/dev/null "$@" \
        >"$work/dpkg.log" 2>&1 || fail "dpkg $*: $(cat "$work/dpkg.log")"
}
on_root --install "$packages"/*.deb

grep -q '^shd:' "$root/etc/passwd" || fail "no user shd"
for path in data/mcudumplog data/logdata/sensor data/property nvdata; do
    [ -d "$root/$path" ] || fail "no $path"
done
[ "$(cat "$root/proc/mcusleep/lpm")" = 1 ] || fail "the low-power file is not given back"
[ "$(stat -c %u "$root/nvdata/BARO")" = "$(stat -c %u "$root/nvdata")" ] ||
    fail "not allowed to its calibration"
boot=$root/etc/systemd/system/multi-user.target.wants/shd.service
[ -L "$boot" ] || fail "not part of the boot"
rm "$boot"
on_root --install "$packages"/*.deb
[ ! -L "$boot" ] || fail "an upgrade enables what was disabled"
! dpkg-deb -I "$packages"/shd_*.deb postinst | grep -E 'systemctl (re)?start ' ||
    fail "an upgrade starts what did not run"
for page in man8/shd.8 man1/shdtool.1; do
    page=$root/usr/share/man/$page
    [ "$(file -b --mime-type "$page")" != application/gzip ] || gunzip "$page"
    groff -man -ww -Tutf8 "$page" 2>&1 >/dev/null | tee "$work/groff"
    [ ! -s "$work/groff" ] || fail "$page: groff complains"
done
for program in shdtool mcusim; do bash -n "$root/usr/share/bash-completion/completions/$program"; done
tests/packaging/client_example_test.sh "$(dirname "$packages")" "$root/usr"

# As shd.service starts it, from the units' own words: its user without a capability, the owners from
# tmpfiles.d, the tty's from udev.rules. The launcher waits for a first client.
unit=$root/usr/lib/systemd/system
field() { sed -n "s/^$2=//p" "$unit/$1"; }
read -r launcher daemon < <(field shd.service ExecStart)
tree=$work/tree
mkdir -p "$tree/system/bin"
"$bin/shdtool" image build --simulated-firmware --version SIM.900.0002 -o "$tree/system/bin/mcu.bin" >/dev/null
start_board "$tree"
(cd "$root" && cp -a --parents etc/passwd etc/group usr/lib/tmpfiles.d "$tree")
systemd-tmpfiles --root="$tree" --create shd.conf
number() { sed -n "s/^$2:x:\([0-9]*\):.*/\1/p" "$root/etc/$1"; }
read -r group mode < <(sed -nE 's/.*GROUP="(\w+)", MODE="(\w+)"$/\1 \2/p' "$root"/usr/lib/udev/rules.d/*)
chgrp "$(number group "$group")" -- "$tree/dev/ttyHSL1"
chmod "$mode" "$tree/dev/ttyHSL1"
chmod 711 "$work"
listen=() names=
for socket in $(field shd.service Sockets); do
    listen+=(--listen="$tree$(field "$socket" ListenStream)")
    names+=${names:+:}$(field "$socket" FileDescriptorName)
done
start_daemon "$tree" systemd-socket-activate -E SHD_ROOT="$tree" "${listen[@]}" --fdname="$names" \
    setpriv --reuid="$(number passwd "$(field shd.service User)")" --clear-groups --bounding-set=-all \
    --regid="$(number group "$(field shd.service Group)")" "$root$launcher" "$root$daemon"
! grep -q "from environment" "$tree.log" || fail "the sockets were not taken"
events_flow "$tree"
[ "$(cat "$tree/data/property/persist.mcu.version")" = SIM.900.0002 ] || fail "no update"
"$bin/mcusim" --root "$tree" --send crash
eventually "it recovers" grep -q SensorWakeLockAcquiredLocked.*:0 "$tree.log"
[ -s "$tree/data/mcudumplog/mcudump_0" ] || fail "no dump"
! grep "Permission denied" "$tree.log" || fail "it lacks a right"

on_root --purge shd libshdclient-dev
find "$root" -not -path "$root/var*" | sort >"$work/after"
sed -i -E "\|^$root/etc/(passwd\|group\|shadow\|gshadow)-\$|d;\|^$root/etc/.pwd.lock\$|d" "$work/after"
diff "$work/before" "$work/after" || fail "the removal left or took something"
! grep -q '^shd:' "$root/etc/passwd" "$root/etc/group" || fail "user or group left"
grep -q '^sensors:x:7777:' "$root/etc/group" || fail "it took a group that it had not made"
