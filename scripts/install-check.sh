#!/bin/bash
# Installs a build into a scratch DESTDIR and builds a program outside the tree against it with
# pkg-config, then runs it. Usage: install-check.sh BUILD_DIR
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
DESTDIR="$work/dest" cmake --install "$build" --prefix /opt/vok >/dev/null
pcdir=$(dirname "$(find "$work/dest" -name vok.pc | head -1)")
cat >"$work/main.cpp" <<'CPP'
#include <vok/vok.h>
#include <cstdio>
int main() {
    vok::DiagnosticRegisterCounter counter("root.outside.count", 41);
    vok::ArgvMaker argv("hello 'out there'");
    std::printf("%d %d\n", counter.Inc(), argv.Argc());
    return 0;
}
CPP
export PKG_CONFIG_PATH="$pcdir"
g++ -std=c++17 -Wall -Werror "$work/main.cpp" -o "$work/outside" $(pkg-config --cflags --libs vok)
out=$(LD_LIBRARY_PATH="$(pkg-config --variable=libdir vok)" "$work/outside")
[ "$out" = "42 2" ] || { echo "install-check: unexpected output <$out>" >&2; exit 1; }
echo "install-check: ok"
