#!/usr/bin/env bash
# Holds the help of kyp against its manual and its completion.
#   kyp.sh KYP SOURCE
set -uo pipefail
kyp=$1 source=$2
. "$(dirname "$0")/options.sh"
complete() { :; }
. "$source/packaging/kyp.bash"
manual=$source/docs/man/kyp.1

sorted() { tr ' ' '\n' | LC_ALL=C sort -u; }

commands=$("$kyp" --help | awk '/^Commands:/ { inside = 1; next } /^[^ ]/ { inside = 0 } inside && /^  [a-z]/ { print $1 }')
must_match "the commands of the completion" "$(sorted <<<"$commands")" "$(sorted <<<"$_kyp_commands")"
must_match "the commands of the manual" "$(sorted <<<"$commands")" \
    "$(sed -n 's/^\.SS kyp \([a-z]*\).*/\1/p' "$manual" | sorted)"

global=$("$kyp" --help | help_options "")
must_match "the global options of the manual" "$global" "$(manual_options "$manual" '.SH GLOBAL OPTIONS')"
must_match "the global options of the completion" "$global" \
    "$(sorted <<<"$_kyp_global $(_kyp_options "")")"

for command in $commands; do
    options=$("$kyp" "$command" --help | help_options Options | grep -vxE -- '-h|--help')
    must_match "$command in the manual" "$options" "$(manual_options "$manual" ".SS kyp $command")"
    must_match "$command in the completion" "$options" "$(_kyp_options "$command" | sorted)"
done
exit "$failed"
