# What each command needs from Debian, and how to get it. Sourced by the
# commands at the root; see any of them for the use.

packages_run="g++ cmake ninja-build pkg-config protobuf-c-compiler libprotobuf-c-dev
              protobuf-compiler libprotobuf-dev libprotoc-dev libpcap-dev libevent-dev
              libhiredis-dev libssl-dev libsystemd-dev libcli11-dev nlohmann-json3-dev
              libedit-dev"
packages_live="$packages_run redis-server"
packages_test="$packages_live libgtest-dev libgmock-dev git openssl python3 zsh"
packages_coverage="$packages_test gcovr"
packages_bench="$packages_live libbenchmark-dev gnuplot-nox python3"
packages_check="$packages_test clang clang-format clang-tidy groff man-db mandoc bsdextrautils"
packages_package="$packages_run dpkg-dev file debootstrap lintian systemd systemd-container"

# Prints those of the named packages that are not installed.
packages_missing() {
    local package
    for package in "$@"; do
        if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
            printf '%s ' "$package"
        fi
    done
}

# Whether apt knows a candidate for each named package.
packages_known() {
    local package
    for package in "$@"; do
        apt-cache policy "$package" 2>/dev/null | grep -q 'Candidate: [^(]' || return 1
    done
}

# Installs what is missing of the named packages; says nothing when nothing is.
packages_install() {
    local missing as_root=""
    missing=$(packages_missing "$@")
    [ -n "$missing" ] || return 0
    if [ "$(id -u)" != 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "$0: needs root or sudo to install: $missing" >&2
            return 1
        fi
        as_root="sudo"
    fi
    echo "Installing: $missing"
    # shellcheck disable=SC2086 # a list of words
    packages_known $missing || $as_root apt-get update -q </dev/null
    # shellcheck disable=SC2086
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -qy --no-install-recommends \
        $missing </dev/null || {
        # An index older than the archive names files that are gone.
        $as_root apt-get update -q </dev/null
        $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -qy --no-install-recommends \
            $missing </dev/null
    }
}

# build_preset PRESET [cmake --build arguments]: configures and builds, quietly unless it fails.
build_preset() {
    local preset=$1
    shift
    local log=build/$preset.log
    mkdir -p build
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset" "$@"; } >"$log" 2>&1; then
        cat "$log" >&2
        echo "$0: the $preset build failed" >&2
        return 1
    fi
}
