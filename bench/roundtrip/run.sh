#!/usr/bin/env bash
# Builds optimised and measures in private namespaces. Options go to the benchmark: --help.
exec "$(dirname "$0")/../common/run.sh" kyp_bench_roundtrip "$@"
