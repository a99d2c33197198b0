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
        -I|-i|--input-format|-O|--output-format)
            COMPREPLY=($(compgen -W "intel srec bin" -- "$cur"))
            return ;;
        --to|--from) return ;; # addresses
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
            COMPREPLY=($(compgen -W "info status restart digital analog ping spi i2c eeprom renesas firmware awire can canopen testsys dio ad errcode sim hex $globals" \
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
                COMPREPLY=($(compgen -W "--type --select --offset --page --poll --output --lenient --help" -- "$cur"))
            else
                _filedir
            fi ;;
        renesas)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "init id complete erase program read version check --id --rate --help" \
                    -- "$cur"))
            elif [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--id --rate --block --erase --page --count --output --lenient --help" -- "$cur"))
            elif [[ $sub == program || $sub == read ]]; then
                _filedir
            fi ;;
        firmware)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "info read write clear --help" -- "$cur"))
            elif [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--block --count --output --lenient --help" -- "$cur"))
            elif [[ $sub == read || $sub == write ]]; then
                _filedir
            fi ;;
        awire)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "config read erase write-file --help" -- "$cur"))
            elif [[ $sub == write-file && $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--input-format --lenient --help" -- "$cur"))
            elif [[ $sub == write-file ]]; then
                _filedir
            elif [[ $sub == config ]]; then
                COMPREPLY=($(compgen -W "--set" -- "$cur"))
            elif [[ $sub == erase ]]; then
                COMPREPLY=($(compgen -W "--user-page" -- "$cur"))
            elif [[ $sub == read ]]; then
                COMPREPLY=($(compgen -W "--output" -- "$cur"))
            fi ;;
        can)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "config filter globals zcard status clock power send cyclic dump play --help" -- "$cur"))
            elif [[ $sub == play || ( $sub == dump && $prev == @(-o|--output) ) ]]; then
                _filedir
            elif [[ $sub == dump ]]; then
                COMPREPLY=($(compgen -W "--count --duration --log --output --help" -- "$cur"))
            elif [[ $sub == send ]]; then
                COMPREPLY=($(compgen -W "--confirm --help" -- "$cur"))
            elif [[ $sub == cyclic ]]; then
                COMPREPLY=($(compgen -W "--interval --off --index --help" -- "$cur"))
            fi ;;
        canopen)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "mode nmt sync time pdo sdo-read sdo-write sdo-read-block sdo-write-block events --sdo-timeout --help" -- "$cur"))
            elif [[ $sub == nmt && $cur != -* ]]; then
                COMPREPLY=($(compgen -W "start stop preop reset reset-comm" -- "$cur"))
            elif [[ $sub == sdo-write-block || $sub == sdo-read-block ]]; then
                _filedir
            fi ;;
        hex)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "info convert dump merge crop fill offset cmp crc --help" -- "$cur"))
            elif [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--input-format --output-format --from --to --output --width --lenient
                    --ignore-checksum --no-overlap --byte --fill --max --help" -- "$cur"))
            else
                _filedir
            fi ;;
        *)
            [[ $cur == -* ]] && COMPREPLY=($(compgen -W "$globals" -- "$cur")) ;;
    esac
} && complete -F _tarvik tarvik
