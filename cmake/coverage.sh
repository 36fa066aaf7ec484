#!/usr/bin/env bash
# Line coverage of the daemon by the tests that need no database: the figure per file,
# and failure below the limit. --missed lists the lines that are not reached as well.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. cmake/packages.sh

limit=95

# shellcheck disable=SC2086 # lists of words
packages_install $packages_coverage
build_preset coverage
find build/coverage -name '*.gcda' -delete
ctest --preset coverage --no-tests=error -j "$(nproc)" >build/coverage.txt || {
    cat build/coverage.txt
    exit 1
}
if [ "${1:-}" = --missed ]; then
    gcovr --root . --filter app/proc/ --gcov-ignore-parse-errors build/coverage/app
fi
gcovr --root . --filter app/proc/ --gcov-ignore-parse-errors --print-summary \
    --fail-under-line "$limit" --output build/coverage.txt build/coverage/app
