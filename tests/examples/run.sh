#!/usr/bin/env bash
# Starts a server, runs a program beside it and looks for a line that it must print. Runs inside the
# sandbox, where the fixed ports and paths are free.
#   run.sh SERVER EXPECTED PROGRAM [ARGS...]     SERVER may be none: then the program starts its own
set -euo pipefail
server=$1 expected=$2
shift 2

if [ "$server" != none ]; then
    "$server" >/tmp/server.log 2>&1 &
    pid=$!
    for _ in $(seq 600); do
        grep -q 'ready' /tmp/server.log && break
        kill -0 "$pid" || { cat /tmp/server.log; exit 1; }
        sleep 0.05
    done
fi

"$@" >/tmp/program.log 2>&1 || { status=$?; cat /tmp/program.log; exit "$status"; }
if ! grep -qF "$expected" /tmp/program.log; then
    echo "'$expected' was not printed:"
    cat /tmp/program.log
    exit 1
fi

# The server ends when it is asked to, without complaint.
if [ "$server" != none ]; then
    kill -TERM "$pid"
    wait "$pid"
fi
