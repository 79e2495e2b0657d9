# Bash completion of voldrake-monitor(1).

_voldrake_monitor()
{
    local cur prev words cword split
    _init_completion -s || return
    case $prev in
        --port | --count)
            return
            ;;
    esac
    $split && return
    COMPREPLY=($(compgen -W '--port --beside --json --raw --count --version --help' -- "$cur"))
} &&
    complete -F _voldrake_monitor voldrake-monitor
