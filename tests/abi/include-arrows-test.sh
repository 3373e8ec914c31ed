#!/bin/sh
# include-arrows-test.sh CHECKER
#
# The checker of the include arrows, against trees that are right or wrong in one place.
set -eu
checker=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# tree FILE CONTENT: a fresh tree with one file more than a good one has.
tree() {
    rm -rf "$work/tree"
    mkdir -p "$work/tree/include/kypcomm" "$work/tree/src/kypcomm" "$work/tree/programs"
    echo '#include "utils/Export.h"' > "$work/tree/include/kypcomm/Good.h"
    printf '%s\n%s\n' '#include "kypcomm/Good.h"' '#include <vector>' \
        > "$work/tree/src/kypcomm/Good.cpp"
    echo '#include <vector>' > "$work/tree/src/kypcomm/Private.h"
    mkdir -p "$work/tree/$(dirname "$1")"
    printf '%s\n' "$2" > "$work/tree/$1"
}

accepts() {
    tree "$1" "$2"
    sh "$checker" "$work/tree" > "$work/out" && return
    echo "refused $1 with $2:"; cat "$work/out"
    failures=$((failures + 1))
}

refuses() {
    tree "$1" "$2"
    sh "$checker" "$work/tree" > "$work/out" || return 0
    echo "accepted $1 with $2"
    failures=$((failures + 1))
}

accepts include/kypclient/A.h '#include "kypcomm/Good.h"'
accepts include/compmodule/A.h '#include "kypcore/IConnection.h"'
accepts include/libkyp/libkyp.h '#include "kypcomm/Good.h"'
accepts src/kypclient/A.cpp '#include "libkyp/libkyp.h"'
accepts src/libkyp/libkyp.cpp '#include "kypclient/A.h"'
accepts programs/p/main.cpp '#include "kypcore/A.h"'
accepts src/kypcomm/A.cpp '#include "Private.h"'
accepts src/utils/A.cpp '#include <string>'

refuses include/utils/A.h '#include "kypcomm/Good.h"'
refuses include/kypcomm/A.h '#include "kypcore/A.h"'
refuses include/kypclient/A.h '#include "kypcore/A.h"'
refuses include/kypclient/A.h '#include "libkyp/libkyp.h"'
refuses include/kypcore/A.h '#include "kypclient/A.h"'
refuses src/kypcore/A.cpp '#include "libkyp/libkyp.h"'
refuses src/kypcore/A.cpp '  #  include <compmodule/A.h>'
refuses include/libkyp/libkyp.h '#include "kypclient/A.h"'
refuses src/kypcomm/A.cpp '#include "../kypcore/A.h"'
refuses src/kypcomm/A.cpp '#include "A.h"'
refuses src/kypcore/A.cpp '#include "Private.h"'
refuses src/elsewhere/A.cpp '#include <string>'
refuses src/kypcomm/Good.cpp '#include <vector>'

[ $failures -eq 0 ]
