#!/usr/bin/env bash
# Makes sure that this machine has what a build needs; names it, and installs it where it may.
set -euo pipefail

needs=(g++ cmake ninja-build libgtest-dev libgmock-dev libcli11-dev nlohmann-json3-dev pkgconf iproute2)
missing=()
for package in "${needs[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "missing packages: ${missing[*]}"
install=(apt-get install -y --no-install-recommends "${missing[@]}")
if [ "$(id -u)" -eq 0 ]; then
    sudo=()
elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
    sudo=(sudo)
else
    echo "install them with: sudo ${install[*]}" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q >/dev/null
"${sudo[@]}" "${install[@]}" >/dev/null
