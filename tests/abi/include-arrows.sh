#!/bin/sh
# include-arrows.sh ROOT
#
# Checks that includes point down: utils <- kypcomm <- kypclient, kypcore <- compmodule <- libkyp <-
# programs. A floor includes itself and those beneath it, never one above or beside it. One door
# leads up: sources of kypclient that call an exported function include the public C headers, which
# therefore stay on kypcomm and utils. A source includes its own header first, so that each header
# is known to stand alone. A name without a folder is a private header beside the source.
set -eu
root=$1
cd "$root"

files=$(find include src programs -name '*.h' -o -name '*.cpp' -o -name '*.c' | sort)
[ -n "$files" ] || { echo "$root: no sources found"; exit 1; }

# shellcheck disable=SC2086
awk '
BEGIN {
    floors["utils"]      = "utils"
    floors["kypcomm"]    = "kypcomm utils"
    floors["kypclient"]  = "kypclient kypcomm utils"
    floors["kypcore"]    = "kypcore kypcomm utils"
    floors["compmodule"] = "compmodule kypclient kypcore kypcomm utils"
    floors["libkyp"]     = "libkyp compmodule kypclient kypcore kypcomm utils"
    public_c             = "libkyp kypcomm utils"
    bad = 0
}
function complain(what) {
    printf "%s:%d: %s\n", FILENAME, FNR, what
    bad = 1
}
function beside(name,    path) {
    path = FILENAME
    sub(/[^\/]*$/, "", path)
    return top == "src" && name !~ /\// && exists(path name)
}
function exists(path,    line, found) {
    found = (getline line < path) >= 0
    close(path)
    return found
}
FNR == 1 {
    split(FILENAME, part, "/")
    top = part[1]
    floor = part[2]
    first = 1
    own = FILENAME
    sub(/^src\//, "", own)
    sub(/\.cpp$/, ".h", own)
    may = floors[floor]
    if (top == "include" && floor == "libkyp") may = public_c
    if (top != "programs" && may == "") complain("is on no floor: " floor)
}
/^[ \t]*#[ \t]*include[ \t]*["<]/ {
    name = $0
    quoted = name ~ /include[ \t]*"/
    sub(/^[^"<]*["<]/, "", name)
    sub(/[">].*$/, "", name)
    target = name
    sub(/\/.*/, "", target)

    if (first && top == "src" && name != own && exists("include/" own))
        complain("does not include its own header first: " own)
    first = 0

    if (name ~ /\.\./) complain("goes around the floors: " name)
    if (top == "programs") next
    if (!(target in floors)) {
        if (quoted && !beside(name)) complain("is not a full path below include/: " name)
        next
    }
    if (index(" " may " ", " " target " ")) next
    if (floor == "kypclient" && top == "src" && name ~ /^libkyp\/libkyp(Cmp)?\.h$/) next
    complain(floor " does not reach up to " name)
}
END { exit bad }
' $files
