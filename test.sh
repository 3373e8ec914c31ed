#!/usr/bin/env bash
# Builds everything and runs every test. Installs what is missing from Debian packages.
#   ./test.sh            the dev preset
#   ./test.sh asan       another preset: release, asan, tsan, coverage
set -euo pipefail
cd "$(dirname "$0")"
preset=${1:-dev}

./tools/install-needs.sh
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset"
