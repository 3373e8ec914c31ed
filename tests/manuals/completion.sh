#!/usr/bin/env bash
# Completes command lines of kyp as bash does.
#   completion.sh SOURCE
set -uo pipefail
. "$1/packaging/kyp.bash"
failed=0

# expect "REPLY ..." WORD...: the replies to the last word, in order.
expect() {
    local wanted=$1
    shift
    COMP_WORDS=(kyp "$@") COMP_CWORD=$# COMPREPLY=()
    _kyp 2>/dev/null
    [ "${COMPREPLY[*]}" = "$wanted" ] && return
    echo "kyp $*: expected '$wanted', got '${COMPREPLY[*]}'"
    failed=1
}

mkdir -p "$XDG_CACHE_HOME/kyp"
echo "1.2.3.4.5.6 10.0.0.1" >"$XDG_CACHE_HOME/kyp/devices"

expect "scan id ping read write call pub sub send stat bench" ""
expect "scan sub send stat" s
expect "ping pub" -t 10.0.0.1 p
expect "--target --timeout" --t
expect "--verbose --version" --ver
expect "--count" ping --c
expect "--explain" scan --e
expect "auto text hex raw" call 100 --format ""
expect "local 1.2.3.4.5.6" ping ""
expect "1.2.3.4.5.6" call -t 1
expect "" ping local ""
expect "" call 100 ""
expect "" ping -c ""
expect "" send ""
exit "$failed"
