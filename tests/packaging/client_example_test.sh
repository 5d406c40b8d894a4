#!/usr/bin/env bash
# The guide's program, built against an installed client library by find_package and by pkg-config,
# follows a hub across restarts of its MCU and of its daemon; each installed header compiles alone.
# Usage: client_example_test.sh BUILD_DIRECTORY [PREFIX]; called by ctest, and for the packages.
set -euo pipefail
umask 022 # else nothing is installed
cd "$(dirname "$0")/../.."
build=$(realpath "${1:?usage: client_example_test.sh BUILD_DIRECTORY [PREFIX]}")
bin=$build/bin
source tests/packaging/hub.sh

prefix=${2:-$work/prefix}
[ -n "${2:-}" ] || cmake --install "$build" --prefix "$prefix" --component dev >/dev/null

# fenced LANGUAGE: the first such block of the guide.
fenced() {
    sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" docs/integration.md | sed '1d;$d'
}
mkdir "$work/example"
fenced cpp >"$work/example/example.cpp"
{
    echo "cmake_minimum_required(VERSION 3.25)"
    echo "project(example LANGUAGES CXX)"
    echo "add_executable(my_hal example.cpp)"
    fenced cmake
} >"$work/example/CMakeLists.txt"
cmake -S "$work/example" -B "$work/example/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null
cmake --build "$work/example/build" -- --quiet

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name shdclient.pc)")
export PKG_CONFIG_PATH
read -r -a flags <<<"$(pkg-config --cflags --libs shdclient)"
g++ -std=c++20 -o "$work/by_pkg_config" "$work/example/example.cpp" "${flags[@]}"
while read -r header; do
    g++ -std=c++20 -fsyntax-only -fno-exceptions -fno-rtti -x c++ "${flags[0]}" - \
        <<<"#include \"$header\"" || fail "$header does not compile alone"
done < <(find "$prefix/include/shdclient" -name '*.h' -printf '%P\n')

samples() { grep -c 'm/s^2' "$work/seen" || true; }
# more_samples WHEN: ten of them, counted from now.
more_samples() {
    local before
    before=$(samples)
    reached() { [ "$(samples)" -ge $((before + 10)) ]; }
    eventually "samples $1" reached
}
start_board "$work/tree"
SHD_ROOT=$work/tree "$work/example/build/my_hal" 1000000 >"$work/seen" 2>"$work/example.log" &
pids+=($!)
start_daemon "$work/tree" "$bin/shd"
more_samples "of a daemon that came later"
grep -q "flush complete" "$work/seen" || fail "the flush never ended"
"$bin/mcusim" --root "$work/tree" --send crash
eventually "a recovery ends" grep -q SensorWakeLockAcquiredLocked.*:0 "$work/tree.log"
more_samples "of an MCU that was restarted"
kill "${pids[2]}"
wait "${pids[2]}" || true
start_daemon "$work/tree" "$bin/shd"
more_samples "of a new daemon"
SHD_ROOT=$work/tree timeout 60 "$work/by_pkg_config" 10 >/dev/null || fail "that of pkg-config failed"
