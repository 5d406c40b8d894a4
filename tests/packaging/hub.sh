# shellcheck shell=bash
# A hub for a test: mcusim and a daemon in a tree of their own, gone when the test ends. Sourced by
# the tests beside it, with the directory of the programs in $bin; makes $work.
work=$(mktemp -d "${TMPDIR:-/tmp}/shd-pack.XXXXXX")
pids=()

end_test() {
    local status=$? pid
    trap - EXIT
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        pid=${pids[i]}
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    [ "$status" -eq 0 ] || tail -n 20 "$work"/*.log >&2 || true
    rm -rf "$work"
    exit "$status"
}
trap end_test EXIT
trap 'exit 130' INT TERM

fail() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}

# eventually WHAT COMMAND...: repeats the command until it succeeds.
eventually() {
    local what=$1 turn
    shift
    for ((turn = 0; turn < 600; turn++)); do
        ! "$@" >/dev/null 2>&1 || return 0
        sleep 0.1
    done
    fail "never happened: $what"
}

# start_board TREE: the simulated MCU and its lines.
start_board() {
    "${bin:?}/mcusim" --root "$1" </dev/null >"$work/mcusim.log" 2>&1 &
    pids+=($!)
    eventually "mcusim is ready" grep -q ready "$work/mcusim.log"
}

# start_daemon TREE COMMAND...: the command as its daemon, served when this returns.
start_daemon() {
    local tree=$1
    shift
    SHD_ROOT=$tree "$@" >/dev/null 2>"$tree.log" &
    pids+=($!)
    eventually "the daemon answers" "${bin:?}/shdtool" --root "$tree" --timeout 20 selftest step-detector
}

# events_flow TREE: thirty samples of a sensor switched on reach a client.
events_flow() {
    "${bin:?}/shdtool" --root "$1" enable accelerometer --rate 50
    timeout 60 "${bin:?}/shdtool" --root "$1" watch accelerometer --count 30 >"$work/events"
    [ "$(grep -c '^accelerometer  .*m/s^2' "$work/events")" -eq 30 ] ||
        fail "not thirty samples: $(cat "$work/events")"
}
