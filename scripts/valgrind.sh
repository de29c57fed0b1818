#!/bin/bash
# make valgrind: every test program of the suite (the tests ctest knows whose command is a program
# of the build), then the demo daemon and vok-powerd, under valgrind's memcheck. A program passes
# when its tests pass and memcheck finds no error and no definite leak. GLib needs
# G_SLICE=always-malloc and G_DEBUG=gc-friendly to hand its memory back in a way memcheck can
# follow, and GLib's own suppression file covers its caches; scripts/valgrind.supp adds what the
# libraries below us keep for the life of the process (only their frames, never ours).
# Programs that a test starts (bus daemon, test services, vok-powerd) run without memcheck.
# VALGRIND_TESTS=REGEX picks tests by name; VALGRIND_DEMO=0 leaves the demo out. Logs are kept in
# BUILD_DIR/valgrind.
# Usage: valgrind.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
out=$build/valgrind
pick=${VALGRIND_TESTS:-.}
mkdir -p "$out"
rm -f "$out"/*.log

command -v valgrind >/dev/null || {
    echo "valgrind.sh: valgrind is not installed (bash scripts/deps.sh valgrind)" >&2
    exit 2
}

export G_SLICE=always-malloc G_DEBUG=gc-friendly
memcheck=(valgrind --tool=memcheck --error-exitcode=99 --leak-check=full
    --show-leak-kinds=definite --errors-for-leak-kinds=definite --num-callers=40
    --track-origins=yes --gen-suppressions=all "--suppressions=$here/valgrind.supp")
if [ -f /usr/share/glib-2.0/valgrind/glib.supp ]; then
    memcheck+=(--suppressions=/usr/share/glib-2.0/valgrind/glib.supp)
fi

passed=0
failed=()

# name dir env... -- program args...: runs one program under memcheck, logging to name.log.
check() {
    local name=$1 dir=$2
    shift 2
    local env=()
    while [ "$1" != -- ]; do
        env+=("$1")
        shift
    done
    shift
    local started=$SECONDS status=0
    (cd "$dir" && env "${env[@]}" "${memcheck[@]}" "--log-file=$out/$name.memcheck.log" "$@") \
        >"$out/$name.log" 2>&1 || status=$?
    local errors
    errors=$(sed -n 's/.*ERROR SUMMARY: \([0-9]*\) errors.*/\1/p' "$out/$name.memcheck.log" | tail -n 1)
    if [ "$status" -eq 0 ]; then
        passed=$((passed + 1))
        printf '%-24s ok (%d s)\n' "$name" $((SECONDS - started))
    else
        failed+=("$name")
        local why="tests failed (exit status $status)"
        [ "$status" -eq 99 ] && why="memcheck found ${errors:-?} errors"
        printf '%-24s FAILED: %s (%d s); see %s\n' "$name" "$why" $((SECONDS - started)) \
            "$out/$name.memcheck.log"
    fi
}

# The test list as ctest prints it: command, working directory, environment, then the name.
cmd="" dir="" env=() inEnv=0
while IFS= read -r line; do
    case $line in
        [0-9]*": Test command: "*)
            cmd=${line#*: Test command: }
            env=()
            inEnv=0
            ;;
        [0-9]*": Working Directory: "*) dir=${line#*: Working Directory: } ;;
        [0-9]*": Environment variables:"*) inEnv=1 ;;
        [0-9]*":  "*) [ "$inEnv" -eq 0 ] || env+=("${line#*:  }") ;;
        *"Test"*"#"*": "*)
            name=${line##*: }
            inEnv=0
            # Scripts (a command with arguments) are not test programs.
            if [[ $cmd != *[\ \"]* && -x $cmd ]] && [[ $name =~ $pick ]]; then
                check "$name" "$dir" "${env[@]}" -- "$cmd"
            fi
            ;;
    esac
done < <(cd "$build" && ctest -N -V)

# The demo as `make demo` runs it, both daemons under memcheck.
if [ "${VALGRIND_DEMO:-1}" != 0 ] && [[ demo =~ $pick ]]; then
    started=$SECONDS
    status=0
    DEMO_SECONDS=${DEMO_SECONDS:-20} DEMO_WRAPPER="${memcheck[*]} --log-file=$out/%p.memcheck.log" \
        bash "$here/demo.sh" "$build" >"$out/demo.log" 2>&1 || status=$?
    # vok-powerd is stopped half way and its status is not the demo's: read every daemon's log.
    if grep -L 'ERROR SUMMARY: 0 errors' "$out"/[0-9]*.memcheck.log | grep -q .; then
        status=99
    fi
    if [ "$status" -eq 0 ]; then
        passed=$((passed + 1))
        printf '%-24s ok (%d s)\n' "demo" $((SECONDS - started))
    else
        failed+=(demo)
        printf '%-24s FAILED (exit status %d); see %s\n' "demo" "$status" "$out/demo.log"
    fi
fi

echo "valgrind: ${#failed[@]} failed, $passed passed; logs in $out"
[ ${#failed[@]} -eq 0 ]
