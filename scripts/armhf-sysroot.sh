#!/bin/bash
# Makes (once) the armhf sysroot the cross build compiles against and qemu-arm runs in.
# The sysroot lives outside the repository and is reused between runs.
# Usage: armhf-sysroot.sh [DIR]   (default: $VOK_ARMHF_SYSROOT or ~/.cache/vok/armhf-sysroot)
set -euo pipefail

dir=${1:-${VOK_ARMHF_SYSROOT:-$HOME/.cache/vok/armhf-sysroot}}
stamp="$dir/.vok-sysroot-ready"
packages=libglib2.0-dev,libjson-c-dev,libgtest-dev,libgmock-dev,libbenchmark-dev,dbus-daemon,libsystemd-dev

if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$packages" ]; then
    echo "$dir"
    exit 0
fi

# The mirror is whatever this machine's apt already uses.
mirror=""
if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    mirror=$(awk '/^URIs:/ {print $2; exit}' /etc/apt/sources.list.d/debian.sources)
fi
if [ -z "$mirror" ] && [ -f /etc/apt/sources.list ]; then
    mirror=$(awk '$1 == "deb" && $0 !~ /security/ {print $2; exit}' /etc/apt/sources.list)
fi
if [ -z "$mirror" ]; then
    echo "armhf-sysroot: no Debian mirror found in this machine's apt sources" >&2
    exit 1
fi

echo "armhf-sysroot: building $dir from $mirror (first run only)" >&2
rm -rf "$dir"
mkdir -p "$dir"
debootstrap --foreign --arch=armhf --variant=minbase --include="$packages" \
    bookworm "$dir" "$mirror" >&2
for deb in "$dir"/var/cache/apt/archives/*.deb; do
    dpkg-deb -x "$deb" "$dir"
done
# Absolute symlinks inside the sysroot must resolve inside it for the cross linker.
find "$dir/usr/lib/arm-linux-gnueabihf" "$dir/lib" -maxdepth 2 -type l 2>/dev/null | while read -r link; do
    target=$(readlink "$link")
    case "$target" in
    /*) ln -sfn "$dir$target" "$link" ;;
    esac
done
echo "$packages" >"$stamp"
echo "$dir"
