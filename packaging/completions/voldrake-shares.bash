# Bash completion of voldrake-shares(1).

_voldrake_shares()
{
    local cur prev words cword split
    _init_completion -s || return
    case $prev in
        --interface)
            _available_interfaces -a
            return
            ;;
        --path)
            _filedir -d
            return
            ;;
        --once | --key | --name | --media-type | --type | --to)
            return
            ;;
    esac
    $split && return
    if [[ $cword -eq 1 && $cur != -* ]]; then
        COMPREPLY=($(compgen -W 'list announce withdraw' -- "$cur"))
        return
    fi
    local options='--json --once --interface'
    case ${words[1]} in
        announce | withdraw)
            options='--path --key --name --media-type --read-only --type --to --interface --repeat'
            ;;
    esac
    COMPREPLY=($(compgen -W "$options --version --help" -- "$cur"))
} &&
    complete -F _voldrake_shares voldrake-shares
