#!/bin/sh
# layout-complete.sh INCLUDE-DIR LAYOUT
#
# Every class and record that a public header defines has its size asserted.
set -eu
include=$1
layout=$2

# A definition: "class KYP_API Name", "struct __attribute__((packed)) Name", "struct Name", with the
# brace or the base behind it. Templates and forward declarations are none.
names=$(find "$include" -name '*.h' -exec cat {} + | awk '
    /^template/ { skip = 1; next }
    /^ *(typedef )?(class|struct) / {
        line = $0
        sub(/\/\/.*/, "", line)
        if (line !~ /[{:]/ || skip) { skip = 0; next }
        gsub(/typedef |KYP_API |__attribute__\(\([a-z_]*\)\) |final /, "", line)
        split(line, word, /[ :{]+/)
        for (i = 1; i <= 2; ++i) if (word[i] == "class" || word[i] == "struct") { print word[i + 1]; break }
        if (word[1] == "" ) print word[3]
    }
    { skip = 0 }' | sort -u)
[ -n "$names" ] || { echo "$include: no classes found"; exit 1; }

# The library's own stock of blocks: in a header, yet no program meets it.
own="FreeList Node"

missing=
for name in $names; do
    case " $own " in *" $name "*) continue ;; esac
    grep -qE "KYP_SIZE\(([A-Za-z_0-9]+::)*$name(<.*>)?," "$layout" || missing="$missing $name"
done
[ -z "$missing" ] && exit 0
echo "without a KYP_SIZE in $layout:$missing"
exit 1
