# Bash completion of voldrake-halsim(1).

_voldrake_halsim()
{
    local cur prev words cword split
    _init_completion -s || return
    case $prev in
        --root)
            _filedir -d
            return
            ;;
        --file)
            _filedir
            return
            ;;
        --mount-command | --unmount-command)
            COMPREPLY=($(compgen -c -- "$cur"))
            return
            ;;
        --address)
            return
            ;;
    esac
    $split && return
    COMPREPLY=($(compgen -W '--address --root --mount-command --unmount-command --file --absent
        --version --help' -- "$cur"))
} &&
    complete -F _voldrake_halsim voldrake-halsim
