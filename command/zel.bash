# Completion of zel for bash.

_zel() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local word subcommand='' i
    local scene='--bind --allow-unbound' common='-h --help --threads' output='-o --output'
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        case $word in
            show | eval | slice | volume | mesh | render | info | bench)
                subcommand=$word
                break
                ;;
        esac
    done
    COMPREPLY=()
    case $previous in
        --component) COMPREPLY=($(compgen -W 'x y z length' -- "$current")) && return ;;
        --gray) COMPREPLY=($(compgen -W '8 16' -- "$current")) && return ;;
        --plane) COMPREPLY=($(compgen -W 'x= y= z=' -- "$current")) && return ;;
    esac
    if [[ $current == -* ]]; then
        local options
        case $subcommand in
            '') options='--version' ;;
            show) options='--dot' ;;
            eval) options="$scene $output --gradient --exact" ;;
            slice) options="$scene $output --plane --size --center --width --component --isolines
                --scale --gray --range" ;;
            volume) options="$scene $output --box --voxel --band --fog --half --name" ;;
            mesh) options="$scene $output --box --voxel --adaptivity --color" ;;
            render) options="$scene $output --size --eye --target --angle --step --color" ;;
            info) options='' ;;
            bench) options="$scene --points --seconds --box" ;;
        esac
        COMPREPLY=($(compgen -W "$options $common" -- "$current"))
    elif [[ -z $subcommand ]]; then
        COMPREPLY=($(compgen -W 'show eval slice volume mesh render info bench' -- "$current"))
    fi
}
complete -o default -F _zel zel
