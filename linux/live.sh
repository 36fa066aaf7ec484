# shellcheck shell=bash
# The daemon on this host, with a database of its own, as real processes that
# need no root. Sourced by ./run.
#
# live_play: a phone's life from plug to unplug, then everything is stopped.
# live_stay: the same processes, left up for a person to play with.

live_programs=build/release/bin live_pid_file=/run/ox.vvlan.dp.pid
live_dir="" live_redis="" live_daemon="" live_stays="" live_namespace="" live_takes_run=""

live_play() {
    live_start
    live_configure
    live_show "Port 3 is trapped: what a phone sends there goes to the CPU."

    live_do notice 3
    live_wait 10 "port 3 to join" live_port_is joined true
    live_show "A phone was seen; the port is in the voice VLAN."

    live_do mac learn 3 00:11:22:33:44:55
    live_wait 10 "the phone's MAC to be tracked" live_port_is voice_macs 1
    live_show "The bridge has learnt its MAC; as long as it stays, the port stays."

    live_say "kill -9 $(live_daemon_pid): the supervisor starts the daemon again"
    live_kill_daemon
    live_wait 10 "the new daemon to know the port" live_port_is quiet_seconds 0
    live_show "A new daemon, and the port has never left the voice VLAN."

    live_do mac gone 3 00:11:22:33:44:55
    live_say "silence; the daemon looks once a minute ..."
    live_wait 130 "port 3 to age out" live_port_is joined false
    live_show "Silent for the aging time: the port is out again, and trapped."
}

live_stay() {
    live_start
    live_configure
    live_show "Port 3 is trapped: what a phone sends there goes to the CPU."
    live_stays=yes
    cat <<END

It stays up. To play the phone, type:

  export VVLAN_MOM=$VVLAN_MOM VVLAN_SHELL=$VVLAN_SHELL PATH="$PWD/$live_programs:\$PATH"
  vvlanctl watch &                        # tells every change as it happens
  vvlanctl notice 3                       # a phone is seen on port 3: it joins
  vvlanctl mac learn 3 00:11:22:33:44:55  # the bridge learns its MAC
  vvlanctl show
  vvlanctl mac gone 3 00:11:22:33:44:55   # silence: out within two minutes
  vvlanctl shell                          # the daemon's debug shell

Logs are in $live_dir. To stop and forget everything:

  kill $live_daemon $live_redis; rm -r $live_dir${live_takes_run:+ $live_pid_file}
END
}

live_say() {
    printf '\n-- %s\n' "$1"
}

live_fail() {
    echo "$0: $1" >&2
    for log in "$live_dir"/*.log; do
        [ -s "$log" ] && printf -- '-- %s\n%s\n' "$log" "$(tail -n 20 "$log")" >&2
    done
    exit 1
}

# A command as a person would type it, shown and run.
live_do() {
    printf '\n$ vvlanctl %s\n' "$*"
    "$live_programs/vvlanctl" "$@" || live_fail "vvlanctl $* failed"
}

live_show() {
    live_do show
    printf '\n-- %s\n' "$1"
}

# live_wait SECONDS WHAT COMMAND...: until the command succeeds.
live_wait() {
    local end=$((SECONDS + $1)) what=$2
    shift 2
    until "$@" >/dev/null 2>&1; do
        [ "$SECONDS" -lt "$end" ] || live_fail "waited in vain for $what"
        sleep 0.1
    done
}

# What `vvlanctl show -j` says of the one port that is configured.
live_port_is() {
    "$live_programs/vvlanctl" show ports -j | grep -Eq "\"$1\": *$2\b"
}

live_daemon_pid() {
    tr -d '\0' <"$live_dir/run/ox.vvlan.dp.pid"
}

live_kill_daemon() {
    local before
    before=$(live_daemon_pid)
    kill -KILL "$before"
    live_wait 10 "the supervisor to start the daemon again" live_is_other_daemon "$before"
}

live_is_other_daemon() {
    local now
    now=$(live_daemon_pid)
    [ -n "$now" ] && [ "$now" != "$1" ] && "$live_programs/vvlanctl" shell show-zlog-level
}

# The daemon's pid file and debug level lie under /run and /var/tmp, which only
# root may write and another daemon may use: give it those of its own.
live_check_host() {
    for live_namespace in "unshare -Urm" "unshare -m"; do
        $live_namespace true 2>/dev/null && return
    done
    live_namespace="" # as for root in a chroot: the real ones, if nobody has them
    if [ "$(id -u)" = 0 ]; then
        # The file stays behind a daemon; its lock does not.
        if [ ! -e "$live_pid_file" ] || flock -n "$live_pid_file" true; then
            live_takes_run=yes
            return
        fi
        echo "$0: another daemon has $live_pid_file, and this host does not let us make" \
            "namespaces, in which ours would get a /run of its own." >&2
        exit 1
    fi
    echo "$0: this host does not let users make namespaces (unshare -Urm), in which the daemon" \
        "gets a /run of its own; allow them (sysctl kernel.unprivileged_userns_clone=1, or" \
        "kernel.apparmor_restrict_unprivileged_userns=0) or run this as root." >&2
    exit 1
}

# As isolation/own_directories.h does it for the tests.
live_in_own_host() {
    [ -z "$live_takes_run" ] || exec "$@"
    # shellcheck disable=SC2016,SC2086 # expanded by that shell; two words
    exec $live_namespace sh -c '
        mount --bind "$0/run" /run && mount --bind "$0/tmp" /var/tmp && exec "$@"' \
        "$live_dir" "$@"
}

live_start() {
    live_check_host
    live_dir=$(mktemp -d /tmp/vvlan-live.XXXXXX)
    trap live_stop EXIT
    trap 'exit 130' INT TERM
    mkdir "$live_dir/tmp"
    if [ -n "$live_takes_run" ]; then ln -s /run "$live_dir/run"; else mkdir "$live_dir/run"; fi
    unset VVLAN_MOM_USER VVLAN_MOM_PASSWORD_FILE VVLAN_MOM_CA VVLAN_MOM_CERT VVLAN_MOM_KEY \
        VVLAN_MOM_CARD # who runs this may have set them for another server
    export VVLAN_MOM=unix:$live_dir/mom.sock VVLAN_SHELL=$live_dir/shell.sock
    export VVLAN_PORTS=$live_dir/ports
    for ifx in 1 2 3 4 5 6 7 8; do
        echo "$ifx $((0x100 + ifx)) ge$ifx"
    done >"$VVLAN_PORTS"
    echo 4 >"$live_dir/tmp/udp_vvlan_debug"

    live_say "a private Redis and the daemon, under its supervisor, in $live_dir"
    grep -v '^dir ' packaging/debian/mom.conf >"$live_dir/mom.conf" # Redis would go there as it reads on
    setsid redis-server "$live_dir/mom.conf" --unixsocket "$live_dir/mom.sock" \
        --dir "$live_dir" --appendonly no --daemonize no \
        >"$live_dir/redis.log" 2>&1 </dev/null &
    live_redis=$!
    live_wait 10 "Redis" test -S "$live_dir/mom.sock"
    (live_in_own_host setsid packaging/vvlan-supervise "$PWD/$live_programs/ox.vvlan.dp") \
        >"$live_dir/daemon.log" 2>&1 </dev/null &
    live_daemon=$!
    live_wait 10 "the daemon" "$live_programs/vvlanctl" shell show-zlog-level
}

live_configure() {
    live_do oui add 00:11:22/24
    live_do set vlan 100 switch on aging 1
    live_do port auto 3
    live_wait 10 "port 3 to be trapped" live_port_is trapped true
}

live_stop() {
    [ -z "$live_stays" ] || return 0
    local pid
    for pid in $live_daemon $live_redis; do # the database last
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$live_dir" ${live_takes_run:+"$live_pid_file"}
}
