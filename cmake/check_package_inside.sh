#!/bin/bash
# An administrator's day with the package, in the root that check_package.sh made:
# `plain`, where nothing but a shell runs, or `booted`, where systemd does. The
# second argument is the version that is installed first.
set -Eeuo pipefail
trap 'echo "line $LINENO: $BASH_COMMAND failed"; tell_why' ERR
export DEBIAN_FRONTEND=noninteractive

tell_why() {
    tail -n 20 /tmp/run.log 2>/dev/null || true
    [ "$way" = plain ] || journalctl -q --no-pager -u vvlan -u vvlan-mom -n 40
}

say() {
    printf -- '-- %s: %s (%d s)\n' "$way" "$1" "$SECONDS"
}

# until_true SECONDS COMMAND...
until_true() {
    local end=$((SECONDS + $1))
    shift
    until "$@" >/dev/null 2>&1; do
        [ "$SECONDS" -lt "$end" ] || { echo "waited in vain for: $*" && return 1; }
        sleep 0.1
    done
}

install_version() {
    apt-get install -qy "/opt/vvlan_$1_amd64.deb" >/tmp/apt.log 2>&1 || {
        cat /tmp/apt.log
        return 1
    }
}

is_joined() {
    vvlanctl show ports -j | grep -q '"joined": *true'
}

# Of the phone's life only that it joins: the rest is tested elsewhere.
join_a_port() {
    redis-cli -s /run/vvlan/mom.sock CONFIG GET dir 2>&1 | grep -q NOPERM
    vvlanctl oui add 00:11:22/24
    vvlanctl set vlan 100 switch on
    vvlanctl port auto 3
    until_true 10 sh -c "vvlanctl show ports -j | grep -q '\"trapped\": *true'"
    vvlanctl notice 3
    until_true 10 is_joined
}

is_purged() {
    local left
    left=$(find /etc /usr /var/lib /run /lib -xdev \( -name '*vvlan*' -o -path '*/vvlan/*' \) \
        ! -path '/var/lib/dpkg/*' ! -path '/run/systemd/*')
    [ -z "$left" ] || { printf 'left behind:\n%s\n' "$left" && return 1; }
}

purge() {
    apt-get purge -qy vvlan >/tmp/apt.log 2>&1 || { cat /tmp/apt.log && return 1; }
    is_purged
    say "purged, and nothing is left"
}

verify_units() {
    local said
    said=$(systemd-analyze verify --man=no vvlan.service vvlan-mom.service 2>&1) || said+=" failed"
    [ -z "$said" ] || { printf '%s\n' "$said" && return 1; }
    say "systemd has nothing against the units"
}

is_quiet() {
    ! grep -lE '^(ox.vvlan.dp|redis-server|vvlan-)' /proc/[0-9]*/comm
}

plain() {
    apt-get update -q >/dev/null
    install_version "$version"
    say "installed"
    echo "3 259 ge3" >/etc/vvlan/ports
    verify_units
    echo "VVLAN_SHELL=/run/vvlan/other.sock" >>/etc/default/vvlan
    export VVLAN_SHELL=/run/vvlan/other.sock
    rm -r /run/vvlan /run/ox.vvlan.dp.pid # as after a start of the host
    /usr/libexec/vvlan/vvlan-run >/tmp/run.log 2>&1 &
    local run=$!
    until_true 10 vvlanctl shell show-zlog-level
    join_a_port
    say "a port joins, under vvlan-run"
    kill -KILL "$(tr -d '\0' </run/ox.vvlan.dp.pid)"
    until_true 10 vvlanctl shell show-zlog-level
    is_joined
    say "killed, started again, and the port is still joined"
    if is_quiet >/tmp/processes; then return 1; fi
    kill "$run" && wait "$run"
    until_true 5 is_quiet
    say "stopped, and no process is left"
    purge
}

main_pid() {
    systemctl show -P MainPID vvlan
}

# The service is ready and has another process than the one given.
is_other_process() {
    [ "$(main_pid)" != "$1" ] && systemctl is-active -q vvlan
}

booted() {
    install_version "$version"
    until_true 30 systemctl is-active vvlan-mom
    until_true 30 systemctl is-active vvlan
    say "installed, and ready"
    : >/etc/vvlan/ports
    systemctl restart vvlan
    echo "3 259 ge3" >/etc/vvlan/ports
    systemctl reload vvlan
    join_a_port
    say "a port joins"
    local before
    before=$(main_pid)
    kill -KILL "$before"
    until_true 30 is_other_process "$before"
    is_joined
    say "killed, started again, and the port is still joined"

    mkdir -p /run/systemd/system/vvlan.service.d
    printf '[Service]\nWatchdogSec=2\n' >/run/systemd/system/vvlan.service.d/watchdog.conf
    echo 5 >/etc/vvlan/udp_vvlan_debug
    echo "VVLAN_SHELL=/run/vvlan/other.sock" >>/etc/default/vvlan
    systemctl daemon-reload
    before=$(main_pid)
    install_version "$version.1"
    until_true 30 is_other_process "$before"
    grep -q other.sock /etc/default/vvlan
    is_joined
    vvlanctl --shell /run/vvlan/other.sock shell show-zlog-level | tee /tmp/level
    grep -qi debug /tmp/level
    say "upgraded: its configuration is kept, the port joined"

    before=$(main_pid)
    rm /run/ox.vvlan.dp.pid # taken for stale
    kill -STOP "$before"
    until_true 30 is_other_process "$before"
    is_joined
    say "a daemon that hangs is replaced, its pid file made again"

    echo "VVLAN_MOM=nowhere" >>/etc/default/vvlan
    systemctl restart vvlan && return 1
    [ "$(systemctl show -P ExecMainStatus vvlan)" = 239 ]
    systemctl is-failed -q vvlan
    journalctl -q -u vvlan | grep "VVLAN_MOM=nowhere"
    rm -r /run/systemd/system/vvlan.service.d
    say "what is refused is said, and not tried again"
    purge
}

way=$1 version=$2
"$way"
