#!/usr/bin/env bash
# Holds the code against .clang-format and .clang-tidy. Needs clang-format, clang-tidy and a
# configured dev preset; the tests' sources are only formatted, since gcc's precompiled headers are
# nothing that clang reads.
set -euo pipefail
cd "$(dirname "$0")/.."

git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format --dry-run -Werror
run-clang-tidy -p build/dev -quiet -j"$(nproc)" "$PWD/(src|programs|bench|demo|examples)/.*" 2>/dev/null
