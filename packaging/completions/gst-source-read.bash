# bash completion for gst-source-read. Made by scripts/manuals.py from the tables of options; changes here are lost.
_gst_source_read() {
    local cur prev words cword split
    _init_completion -s -n : || return
    case $prev in
    -h|--help)
        :
        return
        ;;
    --version)
        :
        return
        ;;
    --json)
        :
        return
        ;;
    --watch)
        :
        return
        ;;
    --channel)
        :
        return
        ;;
    --stream)
        :
        return
        ;;
    --format)
        mapfile -t COMPREPLY < <(compgen -W "mpegts mkv" -- "$cur")
        return
        ;;
    --kind)
        mapfile -t COMPREPLY < <(compgen -W "video audio" -- "$cur")
        return
        ;;
    --start)
        mapfile -t COMPREPLY < <(compgen -W "oldest newest key" -- "$cur")
        return
        ;;
    --output)
        _filedir
        return
        ;;
    --frames)
        :
        return
        ;;
    --duration)
        :
        return
        ;;
    --follow)
        :
        return
        ;;
    --segment)
        :
        return
        ;;
    --from)
        mapfile -t COMPREPLY < <(compgen -W "key newest oldest" -- "$cur")
        return
        ;;
    --timeout)
        :
        return
        ;;
    --no-follow)
        :
        return
        ;;
    --overwrite)
        :
        return
        ;;
    --video-only)
        :
        return
        ;;
    --audio-only)
        :
        return
        ;;
    --no-audio)
        :
        return
        ;;
    --width)
        :
        return
        ;;
    --force)
        :
        return
        ;;
    esac
    $split && return
    local known="-h --help --version"
    case ${words[1]} in
    list) known="-h --help --json" ;;
    tracks) known="-h --help --watch --json" ;;
    read) known="-h --help --channel --stream --format --kind --start --output --frames --duration --follow --json" ;;
    record) known="-h --help --channel --stream --segment --duration --from --timeout --follow --no-follow --overwrite --video-only --audio-only --json" ;;
    play) known="-h --help --channel --stream --no-audio --follow" ;;
    snapshot) known="-h --help --channel --stream --timeout --width" ;;
    remove) known="-h --help --force" ;;
    esac
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$known" -- "$cur")
    elif ((cword == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "list tracks read record play snapshot remove" -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "$(gst-source-read list --json 2>/dev/null | sed -n 's|.*"name":"/*\([^"]*\)".*|\1|p')" -- "$cur")
        _filedir
    fi
}
complete -F _gst_source_read gst-source-read
