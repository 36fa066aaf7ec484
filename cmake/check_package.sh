#!/usr/bin/env bash
# Makes the Debian package and uses it as an administrator would, in a Debian
# root of its own: without systemd, under the supervisor, and booted with systemd.
# Needs root. What happens inside is cmake/check_package_inside.sh.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. cmake/packages.sh

exposure_max=20 # tenths
work=$PWD/build/package
root=$work/root

fail() {
    echo "$0: $1" >&2
    exit 1
}

# make_package VERSION: the package of the release build, in $work.
make_package() {
    (cd build/release && cpack -G DEB -D CPACK_PACKAGE_VERSION="$1" -B "$work") \
        >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log" >&2 && fail "no package"; }
}

# Below the limit, and what docs/operations.md says it is.
check_units() {
    local unit figure
    for unit in vvlan vvlan-mom; do
        systemd-analyze security --offline=true --threshold="$exposure_max" --no-pager \
            "packaging/systemd/$unit.service" >"$work/$unit.security" ||
            { cat "$work/$unit.security" >&2 && fail "$unit.service is exposed"; }
        figure=$(sed -nE '$s/.*: ([0-9.]+) .*/\1/p' "$work/$unit.security")
        echo "$unit.service: exposure $figure"
        [[ $(tr '\n' ' ' <docs/operations.md) == *" $figure to \`$unit.service\`"* ]] ||
            fail "docs/operations.md does not give $figure to $unit.service"
    done
}

# A minimal Debian, kept for the next time.
make_base() {
    [ -e "$work/base.done" ] && return
    rm -rf "$work/base"
    debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus bookworm "$work/base" \
        >"$work/debootstrap.log" 2>&1 || { cat "$work/debootstrap.log" >&2 && fail "no Debian"; }
    printf '#!/bin/sh\nexit 101\n' >"$work/base/usr/sbin/policy-rc.d"
    chmod 755 "$work/base/usr/sbin/policy-rc.d"
    touch "$work/base.done"
}

make_root() {
    rm -rf "$root"
    cp -a "$work/base" "$root"
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    cp "$work"/vvlan_*.deb "$root/opt"
    install -m 755 cmake/check_package_inside.sh "$root/check"
}

# Host names and mirrors as here, services kept from starting by a policy. In a
# chroot "/" may be no mount that could be made private; nsenter begins at the real one.
in_plain_root() {
    # shellcheck disable=SC2016 # expanded by that shell
    unshare --mount --propagation unchanged --pid --fork --kill-child sh -euc '
        mount --make-rprivate / 2>/dev/null ||
            nsenter --mount=/proc/self/ns/mnt mount --make-rprivate /
        mount -t proc proc "$0/proc"
        exec chroot "$0" /check plain "$1"' "$root" "$version"
}

in_booted_root() {
    rm "$root/usr/sbin/policy-rc.d"
    ln -sf /dev/null "$root/etc/systemd/system/redis-server.service"
    cat >"$root/etc/systemd/system/check.service" <<END
[Unit]
After=multi-user.target
SuccessAction=exit
FailureAction=exit
FailureActionExitStatus=1
[Service]
Type=oneshot
ExecStart=/check booted $version
StandardOutput=file:/check.log
StandardError=inherit
TimeoutStartSec=240
END
    mkdir -p "$root/etc/systemd/system/graphical.target.wants"
    ln -s ../check.service "$root/etc/systemd/system/graphical.target.wants/check.service"
    local status=0
    timeout 300 systemd-nspawn --quiet --directory="$root" --register=no --keep-unit \
        --private-network --boot </dev/null >"$work/boot.log" 2>&1 || status=$?
    cat "$root/check.log" || cat "$work/boot.log"
    return "$status"
}

if [ "$(id -u)" != 0 ]; then
    echo "$0: SKIPPED, NOTHING WAS CHECKED: the package is installed in a root of its own, which" \
        "only root can make" >&2
    exit 0
fi
# shellcheck disable=SC2086 # lists of words
packages_install $packages_package
build_preset release --target ox.vvlan.dp vvlanctl vvlan_man_pages
mkdir -p "$work"
rm -f "$work"/vvlan_*.deb
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' build/release/CMakeCache.txt)
make_package "$version"
make_package "$version.1"
lintian --fail-on error,warning --suppress-tags-from-file packaging/debian/lintian \
    "$work/vvlan_${version}_amd64.deb" || fail "lintian is not content"
check_units
make_base
trap 'rm -rf "$root"' EXIT
make_root
in_plain_root || fail "the package does not work in a plain root"
if ! unshare --user true 2>/dev/null; then
    echo "$0: SKIPPED, NOT CHECKED WHERE SYSTEMD RUNS: no user namespace can be made here (in a" \
        "chroot the kernel refuses them), which a container with hardened units needs" >&2
    exit 0
fi
in_booted_root || fail "the package does not work where systemd runs"
