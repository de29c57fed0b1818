#!/bin/bash
# Installs a build into a scratch DESTDIR and builds a program outside the tree against it with
# pkg-config, then runs it. Usage: install-check.sh BUILD_DIR
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
DESTDIR="$work/dest" cmake --install "$build" --prefix /opt/vok >/dev/null
pcdir=$(dirname "$(find "$work/dest" -name vok.pc | head -1)")
# The umbrella header must name every public header.
incdir=$(dirname "$(find "$work/dest" -name vok.h -path '*/vok/vok.h' | head -1)")
for header in "$incdir"/*.h; do
    name=$(basename "$header")
    [ "$name" = vok.h ] && continue
    grep -q "^#include <vok/$name>" "$incdir/vok.h" ||
        { echo "install-check: vok/vok.h does not include vok/$name" >&2; exit 1; }
done
cat >"$work/main.cpp" <<'CPP'
// Uses the shell, a dispatcher with a timer and a JSON value through the umbrella header only,
// and GLib on the dispatcher's loop: `pkg-config --cflags --libs vok` is all it needs.
#include <glib.h>
#include <vok/vok.h>
#include <cstdio>
int main() {
    vok::DiagnosticRegisterCounter counter("root.outside.count", 41);
    vok::ArgvMaker argv("hello 'out there'");
    vok::JsonToken json;
    if (!json.ParseJsonString("{\"fired\":1}")) {
        return 1;
    }
    vok::RuntimeDispatcher dispatcher;
    vok::RdTimerBase timer(dispatcher, [&]() {
        json.ObjectSetNumberPair("fired", 2);
        dispatcher.RequestStop();
    });
    timer.Schedule(1);
    if (g_main_loop_get_context(vok::RuntimeDispatcher::GetInternalLoop(dispatcher)) == nullptr) {
        return 1;
    }
    dispatcher.Run();
    vok::Event done;
    vok::VokShell shell(vok::VokShellDaemonInfo("outside", ""),
                        std::vector<vok::VokBladeLoaderInterface*>(), [&]() { done.Signal(); });
    shell.StartUp();
    shell.RequestStop();
    done.Wait();
    std::printf("%d %d %s\n", counter.Inc(), argv.Argc(), json.GenerateJsonEncodingAndPeek());
    return 0;
}
CPP
export PKG_CONFIG_PATH="$pcdir"
g++ -std=c++17 -Wall -Wextra -Werror "$work/main.cpp" -o "$work/outside" $(pkg-config --cflags --libs vok)
out=$(LD_LIBRARY_PATH="$(pkg-config --variable=libdir vok)" "$work/outside")
[ "$out" = '42 2 { "fired": 2 }' ] || { echo "install-check: unexpected output <$out>" >&2; exit 1; }
echo "install-check: ok"
