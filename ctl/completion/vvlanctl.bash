# bash completion for vvlanctl

_vvlanctl_values() {
    case "$1" in
    switch | security) echo "on off" ;;
    vlan | aging | cos | dscp) echo "" ;;
    *) echo "vlan switch security aging cos dscp" ;;
    esac
}

_vvlanctl() {
    local current previous command sub word words_seen=()
    current=${COMP_WORDS[COMP_CWORD]}
    previous=${COMP_WORDS[COMP_CWORD - 1]}
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word == -* ]] || words_seen+=("$word")
    done
    command=${words_seen[0]-}
    sub=${words_seen[1]-}
    case $previous in
    --shell)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --mom)
        mapfile -t COMPREPLY < <(compgen -W "unix: tcp: tls: sentinel:" -- "$current")
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
            [[ -n ${words_seen[2]-} ]] ||
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
