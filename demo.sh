#!/usr/bin/env bash
# Builds an optimised library and shows it at work, in private namespaces.
#   ./demo.sh            the story
#   ./demo.sh --verbose  the story with the library's log between its lines
set -euo pipefail
cd "$(dirname "$0")"

case "$*" in
    "" | --verbose) ;;
    *) sed -n '2,4s/^# \{0,1\}//p' "$0"; [ "$*" = --help ] && exit 0 || exit 2 ;;
esac

./tools/install-needs.sh
build=build/release
mkdir -p build
echo "Building an optimised libkyp.so (first time: a minute or two) ..."
if ! { cmake --preset release && cmake --build --preset release \
        --target kyp_demo kypserver kyp_tool example_component ivshm_standin kyp_ivshm_peer \
        kyp_sandbox; } >build/demo.log 2>&1; then
    tail -n 20 build/demo.log
    echo "The build failed; the whole of it is in build/demo.log." >&2
    exit 1
fi
echo
export KYP_SANDBOX_IVSHM=$PWD/$build/lib/libivshmAPI-standin.so
exec "$build/bin/kyp_sandbox" "$PWD/$build/bin/kyp_demo" "$PWD/$build/bin" "$@"
