#!/bin/bash
# Makes the Debian packages from a build (cpack, no rebuild), unpacks them into a scratch root
# and checks that each holds what it should, where it should, with the dependencies dpkg
# computed; builds examples/minimal with CMake against that root; runs lintian when installed.
# Exits 77 (skipped) when the Debian packaging tools are missing.
# Usage: package-check.sh BUILD_DIR
set -euo pipefail
build=$(realpath "$1")
for tool in dpkg-deb dpkg-shlibdeps file cpack; do
    if ! command -v "$tool" >/dev/null; then
        echo "package-check: $tool missing (scripts/deps.sh packaging), skipped"
        exit 77
    fi
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "package-check: $*" >&2
    exit 1
}

cpack --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/log" 2>&1 ||
    { cat "$work/log" >&2; fail "cpack failed"; }

# Every package, its files (as dpkg-deb lists them) and its Depends line.
declare -A deb
for package in libvok-dev vok-tools; do
    deb[$package]=$(ls "$work/out/${package}"_*.deb 2>/dev/null) || fail "no $package package"
done
runtime=$(ls "$work"/out/libvok[0-9]*_*.deb) || fail "no libvok<N> runtime package"
root="$work/root"
listing() {
    dpkg-deb -c "$1" | awk '{print substr($6, 2)}'
}
for file in "$runtime" "${deb[@]}"; do
    dpkg-deb -x "$file" "$root"
    while read -r path; do
        [ -e "$root$path" ] || [ -L "$root$path" ] || fail "$(basename "$file") lists $path, not unpacked"
    done < <(listing "$file")
done

expect() {  # expect PACKAGE_FILE PATTERN...: each pattern matches a path the package lists.
    local file=$1
    shift
    local list
    list=$(listing "$file")
    for pattern in "$@"; do
        grep -qE "$pattern" <<<"$list" || fail "$(basename "$file") has no $pattern"
    done
}
expect "$runtime" '/lib/.*libvok\.so\.[0-9]+$' '/lib/.*libztlog\.so\.[0-9]+$' \
    '/lib/.*libkelvra\.so\.[0-9]+$'
expect "${deb[libvok-dev]}" '/include/vok/vok\.h$' '/include/vok/Version\.h$' \
    '/include/ztlog/ztlog\.h$' '/include/kelvra/kelvra\.h$' '/lib/.*libvok\.so$' \
    '/pkgconfig/vok\.pc$' '/pkgconfig/ztlog\.pc$' '/pkgconfig/kelvra\.pc$' \
    '/cmake/vok/vokConfig\.cmake$' '/cmake/vok/vokConfigVersion\.cmake$' \
    '/share/doc/libvok-dev/examples/minimal/main\.cpp$' \
    '/share/doc/libvok-dev/examples/minimal/CMakeLists\.txt$'
expect "${deb[vok-tools]}" '/bin/kv-call$' '/bin/vok-console$' '/bin/vok-powerd$' \
    '/share/dbus-1/system.d/com\.orvex\.vok\.conf$' '/lib/systemd/system/vok-powerd\.service$'
# Each program has its manual page beside it.
for program in $(listing "${deb[vok-tools]}" | sed -n 's|^/usr/bin/||p'); do
    expect "${deb[vok-tools]}" "/share/man/man1/$program\\.1\\.gz\$"
done
if listing "$runtime" | grep -qE '\.so$|/include/'; then
    fail "the runtime package carries development files"
fi

# The runtime package is named after libvok's SONAME, and the others depend on it.
runtime_name=$(dpkg-deb -f "$runtime" Package)
libvok=$(find "$root" -name 'libvok.so.*.*' -type f | head -1)
soname=$(readelf -d "$libvok" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = "libvok.so.${runtime_name#libvok}" ] ||
    fail "SONAME $soname does not match package $runtime_name"
for file in "${deb[@]}"; do
    dpkg-deb -f "$file" Depends | grep -q "$runtime_name" ||
        fail "$(basename "$file") does not depend on $runtime_name"
done
# dpkg-shlibdeps computed the system libraries the shared objects link.
for dependency in libc6 libglib2.0-0 libjson-c5; do
    dpkg-deb -f "$runtime" Depends | grep -q "$dependency" ||
        fail "$runtime_name does not depend on $dependency"
done

# The unit runs the packaged program.
grep -qx 'ExecStart=/usr/bin/vok-powerd' "$root/usr/lib/systemd/system/vok-powerd.service" \
    "$root/lib/systemd/system/vok-powerd.service" 2>/dev/null ||
    fail "vok-powerd.service does not start /usr/bin/vok-powerd"

# A user's CMake project finds the package in the unpacked tree: the packaged example builds.
header=$(find "$root" -name vok.h -path '*/include/vok/*')
prefix=$(dirname "$(dirname "$(dirname "$header")")")
cmake -S "$root/usr/share/doc/libvok-dev/examples/minimal" -B "$work/minimal" \
    -DCMAKE_PREFIX_PATH="$prefix" \
    >"$work/log" 2>&1 && cmake --build "$work/minimal" >>"$work/log" 2>&1 ||
    { cat "$work/log" >&2; fail "examples/minimal does not build against the packages"; }

if command -v lintian >/dev/null; then
    status=0
    lintian --fail-on error "$runtime" "${deb[@]}" >"$work/lintian" 2>&1 || status=$?
    grep -v 'running with root' "$work/lintian" || true
    [ $status -eq 0 ] || fail "lintian found errors"
fi
echo "package-check: ok"
