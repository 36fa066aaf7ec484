#!/usr/bin/env bash
# clang-tidy over our sources but the tests and the bench, as the clang preset compiles
# them (build that first).
# Arguments choose files: cmake/check_tidy.sh app/proc/udp_vvlan_mac.cpp
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

if [ $# -gt 0 ]; then
    printf '%s\0' "$@"
else
    git -c safe.directory="*" ls-files -z -- '*.cpp' ':!tests' ':!bench'
fi | xargs -0 -n 1 -P "$(nproc)" clang-tidy -p build/clang --quiet --warnings-as-errors='*' \
    2> >(grep -v ' warnings\? generated' >&2)
