# bash completion for vvlanctl

_vvlanctl_values() {
    case "$1" in
    switch | security) echo "on off" ;;
    vlan | aging | cos | dscp) echo "" ;;
    *) echo "vlan switch security aging cos dscp" ;;
    esac
}

# The words of the line without options and their values; bash itself splits at colons.
_vvlanctl_words() {
    local word skip=""
    for word in "$@"; do
        case $word in
        --mom | --shell | --phyid | --vlan | --db | --expire | --count | --for | --queue) skip=yes ;;
        -*) ;;
        *)
            [[ -n $skip ]] || seen+=("$word")
            skip=""
            ;;
        esac
    done
}

_vvlanctl() {
    local typed seen=() current previous command sub line=${COMP_LINE:0:COMP_POINT}
    read -ra typed <<<"$line"
    [[ $line == *[[:blank:]] ]] && typed+=("")
    current=${typed[-1]}
    previous=${typed[-2]-}
    _vvlanctl_words "${typed[@]:1:${#typed[@]}-2}"
    command=${seen[0]-}
    sub=${seen[1]-}
    case $previous in
    --shell)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --mom)
        compopt -o nospace 2>/dev/null
        if [[ $current == *:* ]]; then
            mapfile -t COMPREPLY < <(compgen -f -- "${current#*:}")
        else
            mapfile -t COMPREPLY < <(compgen -W "unix: tcp: tls: sentinel:" -- "$current")
        fi
        return
        ;;
    esac
    local choices="" options="--help --json --mom --shell"
    case $command in
    "") choices="set oui port show watch notice mac object shell" options+=" --version" ;;
    set) choices=$(_vvlanctl_values "$previous") ;;
    oui) [[ -n $sub ]] || choices="add del list" ;;
    port) [[ -n $sub ]] || choices="auto manual off del" ;;
    show) [[ -n $sub ]] || choices="ports ouis macs joins events" ;;
    watch) options+=" --since-start --count --for --queue" ;;
    notice) options+=" --phyid" ;;
    mac)
        [[ -n $sub ]] || choices="learn gone"
        options+=" --vlan"
        ;;
    object)
        case $sub in
        "") choices="get set hset del publish scan watch kinds" ;;
        kinds) ;;
        *)
            options+=" --db"
            [[ $sub == set ]] && options+=" --expire"
            [[ $sub == scan || $sub == watch ]] && options+=" --exact"
            [[ $sub == watch ]] && options+=" --since-start --count --for --queue"
            [[ -n ${seen[2]-} ]] ||
                choices=$(vvlanctl object kinds 2>/dev/null | awk 'NR > 1 { print $1 }')
            ;;
        esac
        ;;
    shell)
        [[ -n $sub ]] || choices=$(vvlanctl shell help 2>/dev/null | awk '{ print $1 }')
        ;;
    esac
    [[ $current == -* ]] && choices=$options
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$current")
}

complete -F _vvlanctl vvlanctl
