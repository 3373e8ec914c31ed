#!/usr/bin/env bash
# Installs a build into a scratch prefix and builds a program against it with pkg-config and with
# CMake's find_package.
#   check.sh BUILD SOURCE PREFIX
set -euo pipefail
build=$1 source=$2 prefix=$3

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
DESTDIR=$scratch/root cmake --install "$build" >/dev/null
root=$scratch/root$prefix

pc=$(dirname "$(find "$root" -name kyp.pc)")
cat >"$scratch/version.c" <<'C'
#include "libkyp/libkyp.h"
int main(void) {
    int major, minor, patch;
    libkyp_version(&major, &minor, &patch);
    return major == 0 && minor == 3 && patch == 1 ? 0 : 1;
}
C
export PKG_CONFIG_PATH=$pc
flags=$(pkg-config --cflags --libs kyp)
sanitize=$(sed -n 's/^KYP_SANITIZE:STRING=//p' "$build/CMakeCache.txt")
# shellcheck disable=SC2086
gcc -std=c11 ${sanitize:+-fsanitize=$sanitize} -o "$scratch/by-pkg-config" "$scratch/version.c" $flags
LD_LIBRARY_PATH=$(dirname "$pc") "$scratch/by-pkg-config"
[ "$(pkg-config --modversion kyp)" = "$(cat "$source/VERSION")" ]

cat >"$scratch/CMakeLists.txt" <<'C'
cmake_minimum_required(VERSION 3.25)
project(other LANGUAGES C CXX)
find_package(kyp 0.3 REQUIRED)
add_executable(by-find-package version.c)
target_link_libraries(by-find-package PRIVATE kyp::kyp)
C
cmake -G Ninja -S "$scratch" -B "$scratch/other" -DCMAKE_PREFIX_PATH="$root" \
    ${sanitize:+-DCMAKE_C_FLAGS=-fsanitize=$sanitize} >/dev/null
cmake --build "$scratch/other" >/dev/null
"$scratch/other/by-find-package"
