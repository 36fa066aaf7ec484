#!/usr/bin/env bash
# Configures a project that uses this one as docs/porting.md says, and asks it for the daemon.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat > "$work/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(switch LANGUAGES C CXX)
add_subdirectory("$root" vvlan)
add_library(your_platform INTERFACE)
add_executable(ox.vvlan.dp \$<TARGET_OBJECTS:vvlan_main>)
target_link_libraries(ox.vvlan.dp vvlan_app your_platform)
END
cmake -G Ninja -S "$work" -B "$work/build" > "$work/log" 2>&1 || {
    cat "$work/log"
    exit 1
}
if grep -q vvlan-sim "$work/build/CMakeFiles/TargetDirectories.txt"; then
    echo "the simulator is built where nobody asked for it"
    exit 1
fi
echo "a project can be built around the daemon"
