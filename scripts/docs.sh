#!/bin/bash
# Builds the HTML API documentation of the public headers with Doxygen (see Doxyfile) into
# OUTPUT_DIR/html and fails when Doxygen warns: every public class, function and member must be
# documented. Warnings about the files in warn_only are printed but do not fail the build.
# Exits 77 (skipped) when Doxygen is not installed (scripts/deps.sh docs installs it).
# Usage: docs.sh [OUTPUT_DIR]   (default: build-docs in the source tree)
set -euo pipefail
source_dir=$(realpath "$(dirname "$0")/..")
out=$(realpath -m "${1:-$source_dir/build-docs}")

# Files whose warnings are shown but not enforced: the README is the main page, not API (its
# inline code holds backslashes Doxygen takes for commands).
warn_only=(
    README.md
)

if ! command -v doxygen >/dev/null; then
    echo "docs: doxygen is not installed (bash scripts/deps.sh docs), skipped"
    exit 77
fi

# The version comes from project(VERSION) in CMakeLists.txt, as for the library itself.
version=$(sed -n 's/^project(vok VERSION \([0-9]*\)\.\([0-9]*\)\.\([0-9]*\).*/\1 \2 \3/p' \
    "$source_dir/CMakeLists.txt")
read -r major minor patch <<<"$version"
[ -n "${patch:-}" ] || { echo "docs: no project version in CMakeLists.txt" >&2; exit 1; }

rm -rf "$out/html" "$out/include"
mkdir -p "$out/include/vok"
sed -e "s/@PROJECT_VERSION_MAJOR@/$major/" -e "s/@PROJECT_VERSION_MINOR@/$minor/" \
    -e "s/@PROJECT_VERSION_PATCH@/$patch/" -e "s/@PROJECT_VERSION@/$major.$minor.$patch/" \
    "$source_dir/cmake/Version.h.in" >"$out/include/vok/Version.h"

cd "$source_dir"
VOK_VERSION="$major.$minor.$patch" VOK_DOCS_OUT="$out" doxygen Doxyfile >"$out/doxygen.out" 2>&1 ||
    { cat "$out/doxygen.out" >&2; echo "docs: doxygen failed" >&2; exit 1; }

# A warning is a line "FILE:LINE: warning: ..." followed by indented detail lines. Doxygen repeats
# a member's warning for each class that inherits it: each is counted once.
errors=0
warnings=0
enforced=1
while IFS= read -r entry; do
    case $entry in
    " "*) ;;
    *)
        enforced=1
        for file in "${warn_only[@]}"; do
            case $entry in "$source_dir/$file:"*) enforced=0 ;; esac
        done
        ;;
    esac
    entry=${entry#"$source_dir/"}
    if [ $enforced = 1 ]; then
        echo "docs: $entry" >&2
        errors=$((errors + 1))
    else
        echo "docs: (not enforced) $entry"
        warnings=$((warnings + 1))
    fi
done < <(awk '!seen[$0]++' "$out/warnings.log")

if [ $errors -gt 0 ]; then
    echo "docs: $errors warning lines, see above" >&2
    exit 1
fi
if [ $warnings -gt 0 ]; then
    echo "docs: $out/html/index.html ($warnings warning lines not enforced)"
else
    echo "docs: $out/html/index.html"
fi
