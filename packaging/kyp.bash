# Completion of kyp's command line for bash. Kept true by tests/manuals.

_kyp_commands="scan id ping read write call pub sub send stat bench"
_kyp_global="-t --target --timeout --json -q --quiet -v --verbose -h --help"

_kyp_options() {
    case $1 in
        scan) echo "-d --duration -c --count --explain" ;;
        id) echo "--set" ;;
        ping) echo "-c --count -i --interval -s --size -w --deadline -p --port" ;;
        read) echo "-g --group -o --offset -F --format" ;;
        write) echo "-x --hex -f --file -g --group -o --offset" ;;
        call) echo "-x --hex -f --file -g --group -o --offset -F --format" ;;
        pub) echo "-x --hex -f --file -g --group -o --offset" ;;
        sub) echo "-c --count -w --deadline -T --timestamps -F --format" ;;
        send) echo "-r --remote-path -p --port" ;;
        stat) echo "--watch" ;;
        bench) echo "-s --size -n --connections -d --duration -c --count -p --port" ;;
        *) echo "--version" ;;
    esac
}

# Options that take a value, which is not the command.
_kyp_takes_value() {
    case $1 in
        -t | --target | --timeout | -d | --duration | -c | --count | --set | -i | --interval | \
            -s | --size | -w | --deadline | -p | --port | -g | --group | -o | --offset | -F | \
            --format | -x | --hex | -f | --file | -r | --remote-path | -n | --connections) return 0 ;;
    esac
    return 1
}

# The server of this machine and the devices that a scan has seen.
_kyp_targets() {
    echo local
    cut -d ' ' -f 1 "${XDG_CACHE_HOME:-$HOME/.cache}/kyp/devices" 2>/dev/null
}

_kyp() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command= arguments=0 i
    for ((i = 1; i < COMP_CWORD; i++)); do
        _kyp_takes_value "${COMP_WORDS[i - 1]}" && continue
        case ${COMP_WORDS[i]} in
            -*) ;;
            *) if [[ -z $command ]]; then command=${COMP_WORDS[i]}; else ((arguments++)); fi ;;
        esac
    done

    local words=
    case $previous in
        -t | --target) words=$(_kyp_targets) ;;
        -F | --format) words="auto text hex raw" ;;
        -f | --file) compopt -o default 2>/dev/null; COMPREPLY=(); return ;;
        *)
            _kyp_takes_value "$previous" && return
            if [[ $current == -* ]]; then
                words="$_kyp_global $(_kyp_options "$command")"
            elif [[ -z $command ]]; then
                words=$_kyp_commands
            elif [[ $command == send && $arguments -eq 0 ]]; then
                compopt -o default 2>/dev/null; COMPREPLY=(); return
            elif [[ $command =~ ^(id|ping|stat|bench)$ && $arguments -eq 0 ]]; then
                words=$(_kyp_targets)
            fi
            ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _kyp kyp
