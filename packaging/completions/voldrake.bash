# Bash completion of voldrake(8).

_voldrake()
{
    local cur prev words cword split
    _init_completion -s || return
    case $prev in
        --debuglevel)
            COMPREPLY=($(compgen -W '0 1 2 3 4' -- "$cur"))
            return
            ;;
        --log | --content-id-file | --serial-number-file)
            _filedir
            return
            ;;
        --nfs-root | --internal-share-path)
            _filedir -d
            return
            ;;
        --peer-mac)
            _mac_addresses
            return
            ;;
        --port | --vfat-mount-opts | --file-timeout)
            return
            ;;
    esac
    $split && return
    COMPREPLY=($(compgen -W '--port --debuglevel --log --vfat-mount-opts --internal-share-path
        --peer-mac --content-id-file --serial-number-file --file-timeout --nfs-root --daemon
        --version --help' -- "$cur"))
} &&
    complete -F _voldrake voldrake
