#!/usr/bin/env bash
# Builds the first C program of the README as a reader would type it in, and runs it.
#   readme.sh SOURCE LIBRARY -fsanitize=WHAT     WHAT may be empty
set -euo pipefail
source=$1 library=$2 sanitize=()
[ "$3" = -fsanitize= ] || sanitize=("$3")

awk '/^```c$/ { inside = 1; next } /^```$/ { if (inside) exit } inside' "$source/README.md" >/tmp/first.c
gcc -std=c11 -Wall -Wextra -Werror "${sanitize[@]}" -I "$source/include" \
    -o /tmp/first /tmp/first.c "$library" -Wl,-rpath,"$(dirname "$library")"
exec /tmp/first
