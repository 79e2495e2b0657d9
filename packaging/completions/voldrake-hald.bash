# Bash completion of voldrake-hald(8).

_voldrake_hald()
{
    local cur prev words cword split
    _init_completion -s || return
    [[ $prev == --address ]] && return
    $split && return
    COMPREPLY=($(compgen -W '--address --list --json --debug --version --help' -- "$cur"))
} &&
    complete -F _voldrake_hald voldrake-hald
