#!/bin/sh
# exported-names.sh LIBRARY LIST            compares what the library exports with the list
# exported-names.sh --update LIBRARY LIST   writes the list anew
#
# The list is what programs may have linked against. A name that is lost breaks them; a name that is
# added has to be kept from then on. Either way the list changes by a decision, not by accident.
set -eu

update=
if [ "${1-}" = --update ]; then
    update=yes
    shift
fi
library=$1
list=$2

LC_ALL=C
export LC_ALL

# Marks that the linker sets are no part of the interface.
exported() {
    nm -D --defined-only "$library" |
        awk '$NF !~ /^(_init|_fini|_edata|_end|__bss_start)$/ { print $NF }' | sort -u
}

if [ -n "$update" ]; then
    exported > "$list"
    echo "$list: $(wc -l < "$list") names"
    exit 0
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
exported > "$work/now"
sort -u "$list" > "$work/then"
comm -13 "$work/then" "$work/now" > "$work/added"
comm -23 "$work/then" "$work/now" > "$work/lost"
[ -s "$work/added" ] || [ -s "$work/lost" ] || exit 0

echo "the exported names have changed:"
c++filt < "$work/lost" | paste "$work/lost" - | sed 's/^/  lost   /'
c++filt < "$work/added" | paste "$work/added" - | sed 's/^/  added  /'
echo "if that is meant: tests/abi/exported-names.sh --update $library $list"
exit 1
