#!/usr/bin/env bash
# Fails unless all our C++ stands as .clang-format says. --fix rewrites it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

mode=(--dry-run -Werror)
[ "${1:-}" != --fix ] || mode=(-i)
git -c safe.directory="*" ls-files -z -- '*.cpp' '*.h' | xargs -0 -r clang-format "${mode[@]}"
