#!/bin/bash
# Installs a build into a scratch prefix and builds the examples against it, with CMake
# (find_package(vok CONFIG)) and with pkg-config; then runs the minimal example until its first
# timer line, stops it with SIGTERM and expects exit status 0 and no leak report.
# Usage: examples-check.sh BUILD_DIR [SOURCE_DIR]
set -euo pipefail
build=$(realpath "$1")
source_dir=$(realpath "${2:-$(dirname "$0")/..}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

fail() {
    echo "examples-check: $*" >&2
    exit 1
}

flags="-Wall -Wextra -Werror"
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name vok.pc | head -1)")
export PKG_CONFIG_PATH
for example in minimal two-blades; do
    cmake -S "$source_dir/examples/$example" -B "$work/cmake-$example" \
        -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="$flags" >"$work/log" 2>&1 ||
        { cat "$work/log" >&2; fail "cmake could not configure $example"; }
    cmake --build "$work/cmake-$example" >"$work/log" 2>&1 ||
        { cat "$work/log" >&2; fail "$example does not build with CMake"; }

    # shellcheck disable=SC2046,SC2086
    g++ -std=c++17 $flags "$source_dir/examples/$example/main.cpp" -o "$work/pc-$example" \
        $(pkg-config --cflags --libs vok) ||
        fail "$example does not build with pkg-config"
done

# The libraries of a prefix outside the loader's paths are found through LD_LIBRARY_PATH.
LD_LIBRARY_PATH=$(pkg-config --variable=libdir vok)
export LD_LIBRARY_PATH
coproc MINIMAL { exec "$work/cmake-minimal/minimal" 2>&1; }
pid=$MINIMAL_PID
# bash forgets the coprocess's descriptors once it has exited: keep a copy of its output.
exec {out}<&"${MINIMAL[0]}"
output=""
ticked=0
while IFS= read -r -t 60 -u "$out" line; do
    output+="$line"$'\n'
    if [[ $line == *"tick 1"* ]]; then
        ticked=1
        break
    fi
done
if [ $ticked -eq 0 ]; then
    kill -KILL "$pid" 2>/dev/null || true
    fail "minimal printed no timer line within 60 s: <$output>"
fi
kill -TERM "$pid"
while IFS= read -r -t 60 -u "$out" line; do
    output+="$line"$'\n'
done
status=0
wait "$pid" || status=$?
[ $status -eq 0 ] || fail "minimal exited with status $status after SIGTERM: <$output>"
if grep -qi leak <<<"$output"; then
    fail "minimal reported a leak: <$output>"
fi
grep -q "\[minimal\] stopped" <<<"$output" || fail "minimal did not stop cleanly: <$output>"
# The version the library reports at run time is the one the package was made with.
grep -qF "[minimal] vok $(pkg-config --modversion vok)" <<<"$output" ||
    fail "minimal does not report the library version $(pkg-config --modversion vok): <$output>"
echo "examples-check: ok"
