# Lists of options, one a line and sorted; to be sourced.

# Of a help text on standard input: its section `$1` up to the next one, or all of it.
help_options() {
    awk -v wanted="$1" '
        /^[A-Z].*:$/ { section = $0 }
        wanted == "" || section == wanted ":" { print }' |
        grep -oE '^  -[^ ]+' | tr -d ' ' | tr ',' '\n' | LC_ALL=C sort -u
}

# Of a manual: the headings of paragraphs in the section that begins with the line `$2`.
manual_options() {
    awk -v wanted="$2" '
        /^\.S[HS]/ { inside = index($0 " ", wanted " ") == 1 }
        inside && tagged { print }
        { tagged = /^\.T[PQ]/ }' "$1" |
        sed 's/\\-/-/g; s/\\f.//g; s/"//g' | sed 's/^\.[A-Z]* //' | tr ' ,=' '\n' |
        grep -E '^--?[a-zA-Z]' | LC_ALL=C sort -u
}

# Complains when the lists in `$2` and `$3` differ; `$1` says of what.
must_match() {
    [ "$2" = "$3" ] && return
    echo "$1: the help and what stands here (>) differ:"
    diff <(echo "$2") <(echo "$3")
    failed=1
}
failed=0
