# bash completion for tarvik-sim: its options and fault names.
_tarvik_sim()
{
    local cur prev words cword
    _init_completion || return
    case $prev in
        --fault) COMPREPLY=($(compgen -W "none silent bad-crc wrong-cmd wrong-id twice garbage stall close close-mid-frame" -- "$cur")); return ;;
        -d|--devices) COMPREPLY=($(compgen -W "i2c firmware can spi dio ad renesas tsio tspwr tscom awire tsrelay" -- "$cur")); return ;;
        -H|--host) _known_hosts_real -- "$cur"; return ;;
        -*) [[ $prev == --* && $prev != --help && $prev != --version ]] && return ;;
    esac
    COMPREPLY=($(compgen -W "--help --version --host --devices --index --port --awire-rate --fault --delay --jitter --drop --seed
        --indications --strays --close-after --dribble --max-connections --can-nodes --can-stream" -- "$cur"))
} && complete -F _tarvik_sim tarvik-sim
