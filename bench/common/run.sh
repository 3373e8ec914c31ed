#!/usr/bin/env bash
# run.sh BENCHMARK OPTION...: builds it optimised and runs it in private namespaces.
set -euo pipefail
cd "$(dirname "$0")/../.."
benchmark=$1
shift

./tools/install-needs.sh
cmake --preset release >/dev/null
cmake --build --preset release --target "$benchmark" kyp_bench_counting kypserver kyp_sandbox >/dev/null
build=$PWD/build/release
exec "$build/bin/kyp_sandbox" "$build/bin/$benchmark" --server "$build/bin/kypserver" \
    --counting "$build/lib/libkyp_bench_counting.so" "$@"
