#!/usr/bin/env bash
# From a fresh clone to resolved symbols: installs what is missing, builds Release into build/, and resolves
# addresses of a small example module or of the module named on the command line.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<'TEXT'
Usage: scripts/quickstart.sh [MODULE [ADDRESS...]]

Installs what is missing (with apt-get, as root or through sudo), builds build/bin/orn, and resolves addresses:

  without arguments   of an example module that is compiled on the spot
  MODULE              says what the module is, and resolves the addresses of its first symbols
  MODULE ADDRESS...   resolves these addresses, hexadecimal with or without 0x
TEXT
}

readonly orn=$root/build/bin/orn

# A fresh build directory gets the library and the command line alone: nobody has to install the libraries of tests
# and benchmarks, or wait for them, to see symbols. A directory that somebody configured keeps its settings.
buildRelease() {
    if [[ -e $root/build/CMakeCache.txt ]]; then
        configure release build
    else
        configure release build -DORN_BUILD_TESTS=OFF -DORN_BUILD_BENCH=OFF
    fi
    build build
}

# Shows the command as a person would type it, then runs it.
show() {
    printf '$ %s\n' "$*"
    "$@"
}

# The start of a function and a place inside it, as they stand in the file's own symbol table. nm is another
# reader of that table, so the answers printed are no circle.
exampleAddresses() {
    nm --defined-only "$1" |
        awk '$3 == "greatestCommonDivisor" || $3 == "power" || $3 == "main" { print "0x" $1 }'
}

resolveExample() {
    local module=$root/build/quickstart/example addresses inside answer name
    mkdir -p "${module%/*}"
    show gcc -gdwarf-4 -O1 -o "$module" "$root/examples/quickstart/example.c"
    mapfile -t addresses < <(exampleAddresses "$module")
    ((${#addresses[@]} > 0)) || fail "nm shows no function of the example in $module"
    printf -v inside '0x%x' $((addresses[0] + 4))
    answer=$(show "$orn" symbolize "$module" "${addresses[@]}" "$inside") || fail "orn could not resolve the example"
    printf '%s\n' "$answer"
    for name in greatestCommonDivisor power main; do
        [[ $answer == *"$name"* ]] || fail "the answer names no '$name', though the example module has it"
    done
}

# The begin address is the first hexadecimal number of a line of "orn symbols". The whole listing is read: a
# reader that goes away after a few lines would end orn by a broken pipe.
firstSymbols() {
    "$orn" symbols "$1" --kind function |
        awk 'shown < 5 && match($0, /0x[0-9a-fA-F]+/) { print substr($0, RSTART, RLENGTH); ++shown }'
}

resolveFirstSymbols() {
    local module=$1 listing addresses
    show "$orn" info "$module"
    listing=$(firstSymbols "$module")
    if [[ -z $listing ]]; then
        printf '%s has no function symbols to resolve\n' "$module"
        return 0
    fi
    mapfile -t addresses <<<"$listing"
    show "$orn" symbolize "$module" "${addresses[@]}"
}

main() {
    case ${1:-} in
    -h | --help)
        usage
        return 0
        ;;
    -*)
        usage >&2
        exit 2
        ;;
    esac
    local began
    began=$(microseconds)
    step "Install what is missing" needPackages "${buildNeeds[@]}"
    chooseBuildTools
    step "Build Release into build/" buildRelease
    case $# in
    0) step "Resolve addresses of the example module" resolveExample ;;
    1) step "Resolve the first symbols of $1" resolveFirstSymbols "$1" ;;
    *) step "Resolve addresses of $1" show "$orn" symbolize "$@" ;;
    esac
    printf '\nDone after %s. Next: build/bin/orn --help\n' "$(secondsSince "$began")"
}

main "$@"
