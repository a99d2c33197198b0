# bash completion for tarvik: commands, their subcommands and options, file names
# for the memory-image commands.
_tarvik()
{
    local cur prev words cword
    _init_completion || return

    local globals="--host --port --port-index --timeout --sim --trace --json --help --version"
    case $prev in
        -H|--host) _known_hosts_real -- "$cur"; return ;;
        -P|--port-index|-p|--port|-t|--timeout|-n|--count) return ;;
        --id|--rate|--type|--select|--offset|--page|--poll|--block) return ;;
        -o|--output) _filedir; return ;;
        -i|--input-format|-O|--output-format)
            COMPREPLY=($(compgen -W "intel srec bin" -- "$cur"))
            return ;;
        --to|--from)
            # Formats in the commands that read or write whole images, addresses elsewhere.
            local w
            for w in "${words[@]}"; do
                case $w in info|convert|merge|offset|cmp) COMPREPLY=($(compgen -W "intel srec bin" -- "$cur")) ;; esac
            done
            return ;;
        -d|--device) COMPREPLY=($(compgen -W "firmware i2c can spi dio ad awire renesas" -- "$cur")); return ;;
    esac

    # The command and its subcommand, skipping the global options and their values.
    local i command="" sub=""
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            -H|--host|-P|--port-index|-p|--port|-t|--timeout) ((i++)) ;;
            --id|--rate|--type|--select|--offset|--page|--poll|--block|--count) ((i++)) ;;
            -*) ;;
            *) if [[ -z $command ]]; then command=${words[i]}; elif [[ -z $sub ]]; then sub=${words[i]}; fi ;;
        esac
    done

    case $command in
        "")
            COMPREPLY=($(compgen -W "info status restart digital analog ping spi i2c eeprom renesas firmware testsys dio ad errcode sim hex $globals" \
                -- "$cur")) ;;
        testsys)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "install config available io pwr power relay-power relay button --help" -- "$cur"))
            elif [[ $sub == install ]]; then
                _filedir
            elif [[ $sub == relay ]]; then
                COMPREPLY=($(compgen -W "on off" -- "$cur"))
            elif [[ $sub == io || $sub == pwr || $sub == power || $sub == relay-power ]]; then
                COMPREPLY=($(compgen -W "get set" -- "$cur"))
            fi ;;
        dio)
            [[ -z $sub ]] && COMPREPLY=($(compgen -W "read write --help" -- "$cur")) ;;
        ad)
            [[ -z $sub ]] && COMPREPLY=($(compgen -W "read digital inputs --help" -- "$cur")) ;;
        spi)
            [[ -z $sub ]] && COMPREPLY=($(compgen -W "globals xfer seq --help" -- "$cur")) ;;
        i2c)
            [[ -z $sub ]] && COMPREPLY=($(compgen -W "read write seq --help" -- "$cur")) ;;
        eeprom)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "read write --help" -- "$cur"))
            elif [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--type --select --offset --page --poll --help" -- "$cur"))
            else
                _filedir
            fi ;;
        renesas)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "init id complete erase program read version check --id --rate --help" \
                    -- "$cur"))
            elif [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--id --rate --block --erase --page --count --help" -- "$cur"))
            elif [[ $sub == program || $sub == read ]]; then
                _filedir
            fi ;;
        firmware)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "info read write clear --help" -- "$cur"))
            elif [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--block --count --help" -- "$cur"))
            elif [[ $sub == read || $sub == write ]]; then
                _filedir
            fi ;;
        hex)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "info convert dump merge crop fill offset cmp crc --help" -- "$cur"))
            elif [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--input-format --output-format --from --to --output --width --strict
                    --ignore-checksum --no-overlap --byte --fill --max --help" -- "$cur"))
            else
                _filedir
            fi ;;
        *)
            [[ $cur == -* ]] && COMPREPLY=($(compgen -W "$globals" -- "$cur")) ;;
    esac
} && complete -F _tarvik tarvik
