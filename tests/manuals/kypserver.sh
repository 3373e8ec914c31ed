#!/usr/bin/env bash
# Holds the help of kypserver against its manual.
#   kypserver.sh KYPSERVER SOURCE
set -uo pipefail
. "$(dirname "$0")/options.sh"
must_match "the options of the manual" "$("$1" --help | help_options "")" \
    "$(manual_options "$2/docs/man/kypserver.8" '.SH OPTIONS')"
exit "$failed"
