# bash completion for gst-source. Made by scripts/manuals.py from the tables of options; changes here are lost.
_gst_source() {
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
    --config)
        _filedir
        return
        ;;
    --only)
        :
        return
        ;;
    --print-config)
        :
        return
        ;;
    --caching)
        :
        return
        ;;
    --user)
        :
        return
        ;;
    --password)
        :
        return
        ;;
    --credentials)
        _filedir
        return
        ;;
    --stall-watch)
        :
        return
        ;;
    --duration)
        :
        return
        ;;
    --frames)
        :
        return
        ;;
    --close-timeout)
        :
        return
        ;;
    --name)
        :
        return
        ;;
    --video-bytes)
        :
        return
        ;;
    --audio-bytes)
        :
        return
        ;;
    --buffer-mode)
        mapfile -t COMPREPLY < <(compgen -W "0600 0640 0604 0644" -- "$cur")
        return
        ;;
    --buffer-group)
        :
        return
        ;;
    --http)
        :
        return
        ;;
    --http-token-file)
        _filedir
        return
        ;;
    --dump-video)
        _filedir
        return
        ;;
    --dump-audio)
        _filedir
        return
        ;;
    --json)
        :
        return
        ;;
    --interval)
        :
        return
        ;;
    --color)
        mapfile -t COMPREPLY < <(compgen -W "auto never always" -- "$cur")
        return
        ;;
    -q|--quiet)
        :
        return
        ;;
    -v|--verbose)
        :
        return
        ;;
    --log-level)
        mapfile -t COMPREPLY < <(compgen -W "error warning info debug" -- "$cur")
        return
        ;;
    --log)
        _filedir
        return
        ;;
    --protocols)
        mapfile -t COMPREPLY < <(compgen -W "tcp udp multicast http tls" -- "$cur")
        return
        ;;
    --rtsp-latency)
        :
        return
        ;;
    --rtsp-contimeout)
        :
        return
        ;;
    --mode)
        mapfile -t COMPREPLY < <(compgen -W "caller listener rendezvous" -- "$cur")
        return
        ;;
    --streamid)
        :
        return
        ;;
    --passphrase)
        :
        return
        ;;
    --passphrase-file)
        _filedir
        return
        ;;
    --keylen)
        mapfile -t COMPREPLY < <(compgen -W "0 16 24 32" -- "$cur")
        return
        ;;
    --srt-latency)
        :
        return
        ;;
    --tslatency)
        :
        return
        ;;
    --localaddress)
        :
        return
        ;;
    --rtmp-contimeout)
        :
        return
        ;;
    --idle-timeout)
        :
        return
        ;;
    --token)
        :
        return
        ;;
    --token-file)
        _filedir
        return
        ;;
    --ts-latency)
        :
        return
        ;;
    --mtu)
        :
        return
        ;;
    --hls-timeout)
        :
        return
        ;;
    --retries)
        :
        return
        ;;
    --islive)
        mapfile -t COMPREPLY < <(compgen -W "0 1" -- "$cur")
        return
        ;;
    --proxy)
        :
        return
        ;;
    --proxy-id)
        :
        return
        ;;
    --proxy-pwd)
        :
        return
        ;;
    --proxy-pwd-file)
        _filedir
        return
        ;;
    --user-agent)
        :
        return
        ;;
    esac
    $split && return
    local known="-h --help --version --config --only --print-config --caching --user --password --credentials --stall-watch --duration --frames --close-timeout --name --video-bytes --audio-bytes --buffer-mode --buffer-group --http --http-token-file --dump-video --dump-audio --json --interval --color -q --quiet -v --verbose --log-level --log --protocols --rtsp-latency --rtsp-contimeout --mode --streamid --passphrase --passphrase-file --keylen --srt-latency --tslatency --localaddress --rtmp-contimeout --idle-timeout --token --token-file --ts-latency --mtu --hls-timeout --retries --islive --proxy --proxy-id --proxy-pwd --proxy-pwd-file --user-agent"
    case ${words[1]} in
    check) known="-h --help" ;;
    reload) known="-h --help" ;;
    esac
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$known" -- "$cur")
    elif ((cword == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "check reload" -- "$cur")
    elif [[ ${words[1]} == check || ${words[1]} == reload ]]; then
        _filedir
    fi
}
complete -F _gst_source gst-source
