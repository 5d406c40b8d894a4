#!/usr/bin/env bash
# scripts/run with the programs of a build directory: its events line by line, its table and its
# update in a terminal, its page, its wrong usage; it leaves nothing behind. Run by ctest.
# usage: run_test.sh DIRECTORY-OF-THE-PROGRAMS
set -euo pipefail
bin=$1
run=$(dirname "$0")/../../scripts/run
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/tmp" "$scratch/runtime"
export TMPDIR=$scratch/tmp XDG_RUNTIME_DIR=$scratch/runtime
unset SHD_ROOT NO_COLOR

# expect NAME COUNT PATTERN: so many lines of the output at least.
expect() {
    local found
    found=$(grep -cE -- "$3" "$scratch/out" || true)
    [ "$found" -ge "$2" ] || {
        echo "$1: '$3' in $found lines instead of $2:" >&2
        cat "$scratch/out" >&2
        exit 1
    }
    [ -z "$(find "$scratch/tmp" "$scratch/runtime" -mindepth 1)" ] || {
        echo "$1: left behind:" "$scratch"/{tmp,runtime}/* >&2
        exit 1
    }
}

"$run" --bin "$bin" --seconds 2 >"$scratch/out" 2>&1
expect "no terminal" 1 "^shdtool and mcusim in .* find this hub$"
expect "no terminal" 20 "^accelerometer  +x +-?[0-9.]+  y .* m/s\^2 .* \+[0-9.]+ ms$"
expect "no terminal" 10 "^gyroscope  +x .* rad/s .* \+[0-9.]+ ms$"
expect "no terminal" 1 "^step-counter  +count [0-9]+ steps .* first$"
if grep $'\x1B' "$scratch/out"; then
    echo "no terminal: control sequences" >&2
    exit 1
fi

in_terminal="stty cols 80 rows 24; '$run' --bin '$bin'"
TERM=xterm script -qec "$in_terminal --update --seconds 3" /dev/null </dev/null >"$scratch/out" 2>&1
expect "a terminal" 1 $'\rUpdating the MCU \[#{40}\] (1?[0-9][0-9]) of \\1 blocks'
expect "a terminal" 1 "SENSOR +RATE Hz"
expect "a terminal" 1 "accelerometer +[0-9]+\.[0-9]{2}"
expect "a terminal" 1 "from the MCU [0-9.]+ kB/s"

"$run" --bin "$bin" --view --blank --seconds 3 >"$scratch/out" 2>&1 &
until grep -q "^Open in a browser" "$scratch/out"; do sleep 0.1; done
page=$(sed -n 's/^Open in a browser on this machine: //p' "$scratch/out")
port=$(cut -d/ -f3 <<<"$page" | cut -d: -f2)
(exec 3<>"/dev/tcp/127.0.0.1/$port")
wait $!
if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
    echo "a page: it outlives the hub" >&2
    exit 1
fi
expect "a page" 1 "^Open in a browser .* http://127.0.0.1:[0-9]+/[0-9a-f]{32}/$"
expect "a page" 1 "blocks$"

status=0
"$run" --bin "$scratch" >"$scratch/out" 2>&1 || status=$?
[ "$status" = 2 ]
expect "wrong usage" 1 "no shdtool in"
