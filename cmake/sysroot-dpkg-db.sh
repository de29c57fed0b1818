#!/bin/bash
# Describes the packages unpacked into a cross sysroot as a dpkg database, so that dpkg-shlibdeps
# (with DPKG_ADMINDIR pointing here) finds the package that owns each library it took from the
# sysroot, and that package's shlibs and symbols files. The file lists name the paths under the
# sysroot, as dpkg-shlibdeps finds them. Made once per sysroot.
# Usage: sysroot-dpkg-db.sh SYSROOT DBDIR
set -euo pipefail
sysroot=$(realpath "$1")
db=$2
if [ -f "$db/.sysroot" ] && [ "$(cat "$db/.sysroot")" = "$sysroot" ]; then
    exit 0
fi
rm -rf "$db"
mkdir -p "$db/info" "$db/updates"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
: >"$db/status"
printf '%s\n' "$(dpkg --print-architecture)" >"$db/arch"
for deb in "$sysroot"/var/cache/apt/archives/*.deb; do
    control="$work/control"
    dpkg-deb -f "$deb" >"$control"
    package=$(sed -n 's/^Package: //p' "$control")
    arch=$(sed -n 's/^Architecture: //p' "$control")
    # Without an info/format file dpkg reads the database's files by plain package name.
    name=$package
    grep -qx "$arch" "$db/arch" || [ "$arch" = all ] || echo "$arch" >>"$db/arch"
    { sed '/^Status:/d' "$control"; echo "Status: install ok installed"; echo; } >>"$db/status"
    dpkg-deb -c "$deb" | awk -v root="$sysroot" '{ p = substr($6, 2); sub("/$", "", p); print root p }' \
        >"$db/info/$name.list"
    rm -rf "$work/DEBIAN"
    dpkg-deb -e "$deb" "$work/DEBIAN"
    for file in shlibs symbols; do
        if [ -f "$work/DEBIAN/$file" ]; then
            cp "$work/DEBIAN/$file" "$db/info/$name.$file"
        fi
    done
done
echo "$sysroot" >"$db/.sysroot"
