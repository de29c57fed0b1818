#!/bin/bash
# Lists libvok's dynamic symbols against the public headers (Version.h from its template): every exported symbol belongs to a
# class, function or variable that include/vok declares; none belongs to a class of the
# implementation (defined only under Src/, Mmf* among them) or to the standard library.
# Usage: exports-check.sh LIBVOK_SO SOURCE_DIR
set -euo pipefail
library=$1
source=$2
symbols=$(nm -D --defined-only "$library" | awk '{print $3}' | sed 's/@.*//' | c++filt)
public=$(cat "$source"/include/vok/*.h "$source/cmake/Version.h.in")
# Classes and structs defined in the implementation and named nowhere in the public headers.
internal=$(grep -rhoE '^(class|struct) [A-Za-z_][A-Za-z0-9_]*[^;]*$' "$source/Src" |
    awk '{print $2}' | sort -u |
    while read -r name; do grep -qw -- "$name" <<<"$public" || echo "$name"; done)
status=0
count=0
while read -r symbol; do
    [ "$symbol" = VOK_0 ] && continue # The version node.
    count=$((count + 1))
    owner=$(sed -E 's/^(typeinfo name for |typeinfo for |vtable for |VTT for )//' <<<"$symbol")
    if ! [[ "$owner" =~ ^(vok|voktests)::([A-Za-z_][A-Za-z0-9_]*) ]]; then
        echo "exports-check: not of vok's public API: $symbol" >&2
        status=1
        continue
    fi
    name=${BASH_REMATCH[2]}
    if [[ "$name" == Mmf* ]] || grep -qxF -- "$name" <<<"$internal"; then
        echo "exports-check: internal class exported: $symbol" >&2
        status=1
    elif ! grep -qw -- "$name" <<<"$public"; then
        echo "exports-check: not declared in include/vok: $symbol" >&2
        status=1
    fi
done <<<"$symbols"
echo "exports-check: $count symbols exported"
exit $status
