#!/usr/bin/env bash
# Fails when a formatter has something against a manual page, or when a page
# leaves out a variable of the environment, a command, an option, a kind of
# object or a field. The argument is a build directory; by default the clang preset's.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=${1:-build/clang}
export LC_ALL=C.UTF-8 MANWIDTH=80
failures=0

complain() {
    echo "$0: $*" >&2
    failures=$((failures + 1))
}

# Puts a page as a person sees it into $text, its name into $page.
render() {
    local file=$build/man/$1 said
    page=$1
    text=$(man --warnings -E UTF-8 -l "$file" 2>/dev/null | col -bx) || complain "man: $file"
    said=$(man --warnings -E UTF-8 -l "$file" 2>&1 >/dev/null) || true
    [ -z "$said" ] || complain "man: $file: $said"
    said=$(mandoc -T lint -W warning "$file" 2>&1) || complain "mandoc: $said"
}

# Each line of the input, a regular expression, must stand in the page.
check() {
    local what=$1 wanted count=0
    while IFS= read -r wanted; do
        count=$((count + 1))
        grep -qE -- "(^|[^[:alnum:]_.-])$wanted([^[:alnum:]_-]|\$)" <<<"$text" ||
            complain "$page lacks the $what $wanted"
    done
    [ "$count" -gt 0 ] || complain "no $what was found to look for in $page"
}

tool_help() {
    "$build/bin/vvlanctl" "$@" --help
}

# The commands that have none below them.
commands() {
    local below name
    below=$(tool_help "$@" | sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p')
    [ -n "$below" ] || echo "vvlanctl $*"
    for name in $below; do
        commands "$@" "$name"
    done
}

options() {
    local words
    {
        tool_help
        while read -r _ words; do
            # shellcheck disable=SC2086 # the words of a command
            tool_help $words </dev/null
        done < <(commands)
    } | sed -nE 's/^  (-[^ ]+).*/\1/p' | tr ',' '\n' | sort -u
}

variables() {
    sed -n 's/^ *{"\(VVLAN_[A-Z_]*\)".*/\1/p' linux/linux_env.cpp
}

kinds() {
    "$build/bin/vvlanctl" object kinds | awk 'NR > 1 { print $1 }'
}

fields() {
    sed -nE 's/^ +(uint32|string|p_libpub\.mac) ([a-z_]+) = .*/([a-z_]+\\.)*\2/p' \
        proto/[!p]*.proto proto/p_bridge.proto | sort -u
}

render ox.vvlan.dp.8
check variable < <(variables)
render vvlanctl.8
check variable < <(variables)
check command < <(commands)
check option < <(options)
render vvlan-objects.5
check kind < <(kinds)
check field < <(fields)

page=docs/operations.md text=$(<docs/operations.md)
check variable < <(variables)

[ "$failures" = 0 ] || exit 1
echo "3 manual pages: nothing against them"
