#!/bin/bash
# Installs the Debian packages a target needs, only when some are missing.
# Usage: deps.sh [base] [demo] [armhf] [tools] [peers] [packaging] [fuzz] [valgrind] [docs]
#                [picture]
set -euo pipefail

declare -A groups=(
    [base]="build-essential cmake pkg-config libglib2.0-dev libjson-c-dev libgtest-dev libgmock-dev libbenchmark-dev dbus-daemon libsystemd-dev"
    # `make demo`: what the libraries and the demo's programs need, without the test frameworks.
    [demo]="g++ make cmake pkg-config libglib2.0-dev libjson-c-dev dbus-daemon libsystemd-dev"
    [armhf]="g++-arm-linux-gnueabihf qemu-user debootstrap"
    [tools]="valgrind clang-format"
    # Frameworks the peer benchmarks compare against; only `make bench-peers` wants them.
    [peers]="qtbase5-dev libcaf-dev libsystemd-dev libsdbus-c++-dev"
    # `make deb`: CPack's DEB generator runs dpkg-shlibdeps and file; lintian judges the result.
    [packaging]="dpkg-dev file lintian"
    # libFuzzer harnesses: clang, its fuzzer library and the sanitizer runtimes.
    [fuzz]="clang-14 libfuzzer-14-dev libclang-rt-14-dev"
    # `make valgrind`: memcheck, and its header for the tests' check that they run under it.
    [valgrind]="valgrind"
    # `make docs`: the HTML API documentation of the public headers.
    [docs]="doxygen"
    # `make trace-picture`: the README's trace picture, drawn as SVG and turned into PNG.
    [picture]="python3 librsvg2-bin"
)

wanted=()
for group in "${@:-base}"; do
    if [ -z "${groups[$group]+x}" ]; then
        echo "deps.sh: unknown group $group" >&2
        exit 2
    fi
    read -r -a pkgs <<<"${groups[$group]}"
    wanted+=("${pkgs[@]}")
done

missing=()
for pkg in "${wanted[@]}"; do
    if ! dpkg -s "$pkg" 2>/dev/null | grep -q '^Status: install ok installed'; then
        missing+=("$pkg")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "deps.sh: installing ${missing[*]}" >&2
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
