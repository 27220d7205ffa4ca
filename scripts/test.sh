#!/usr/bin/env bash
# Everything that a change has to pass, on a machine that may have nothing but git and bash. Each configuration
# is here for what only it can find, and no two builds are made where one can do both jobs:
#   debug        gcc, everything that can be built, all tests: the reference
#   asan         clang, address and undefined-behaviour sanitizers, all tests: the second compiler's warnings in
#                the same build, and half the time that gcc takes to compile tests for these sanitizers
#   tsan         clang, thread sanitizer, the tests that start threads
#   release      gcc, through the quick start, as a new user meets it
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<'TEXT'
Usage: scripts/test.sh [--quick] [--help]

Installs what is missing (with apt-get, as root or through sudo), builds in several configurations and passes all
tests. The last lines are ctest's own on the debug build.

  --quick   code format and the debug build with its tests, nothing else
  --help    this text

Build directories: build-debug/, build-asan/, build-tsan/, build/; inputs of the tests: build-inputs/.
ORN_TEST_INPUTS names another directory of inputs.
TEXT
}

readonly testNeeds=(
    "${buildNeeds[@]}"
    libgtest-dev=/usr/include/gtest/gtest.h
    libgmock-dev=/usr/include/gmock/gmock.h
    libbenchmark-dev=/usr/include/benchmark/benchmark.h
    binutils=readelf
    clang-format=clang-format
)

# llvm brings llvm-symbolizer, by which a sanitizer report gets its names.
readonly fullNeeds=(
    clang=clang++
    clang-tidy=clang-tidy
    llvm=llvm-symbolizer
    libclang-rt-14-dev
    elfutils=eu-addr2line
    gcc-mingw-w64-x86-64-posix=x86_64-w64-mingw32-gcc
    gcc-mingw-w64-i686-posix=i686-w64-mingw32-gcc
    lld=lld-link
    dexdump=dexdump
    gdb=gdb
    gfortran=gfortran
    g++-multilib
    gfortran-multilib
)

# Libraries of other machines and systems, as data for the tests; tests that want one say so and skip without it.
readonly inputPackages=(libc6-i386-cross libc6-armhf-cross libc6-arm64-cross libwine libmono-corlib4.5-dll)

quick=no
runner=()

readArguments() {
    local argument
    for argument in "$@"; do
        case $argument in
        --quick) quick=yes ;;
        -h | --help)
            usage
            exit 0
            ;;
        *)
            usage >&2
            exit 2
            ;;
        esac
    done
}

installNeeds() {
    if [[ $quick == yes ]]; then
        needPackages "${testNeeds[@]}"
    else
        needPackages "${testNeeds[@]}" "${fullNeeds[@]}"
    fi
}

# Neither of these inputs may be what a test run fails on: a machine without a network still has its own files.
gatherInputs() {
    local missing
    mapfile -t missing < <(missingPackages "${inputPackages[@]}")
    if ((${#missing[@]} > 0)); then
        { canInstall && aptInstall "${missing[@]}"; } || printf 'could not install %s\n' "${missing[*]}"
    fi
    [[ -d $ORN_TEST_INPUTS/kernel ]] || "$root/scripts/test-inputs.sh" "$ORN_TEST_INPUTS" ||
        printf 'could not fetch the kernel modules\n'
}

noteMissingInputs() {
    local missing
    mapfile -t missing < <(missingPackages "${inputPackages[@]}")
    ((${#missing[@]} == 0)) || note "tests on libraries of other machines and systems are skipped: no ${missing[*]}"
    [[ -d $ORN_TEST_INPUTS/kernel ]] || note "tests on kernel modules are skipped: no $ORN_TEST_INPUTS/kernel"
}

ownSources() {
    local directories=() directory
    for directory in include src tests tools bench fuzz examples; do
        [[ ! -d $root/$directory ]] || directories+=("$root/$directory")
    done
    find "${directories[@]}" -type f \( -name '*.h' -o -name '*.cpp' -o -name '*.cc' -o -name '*.c' \) -print0 | sort -z
}

checkFormat() {
    ownSources | xargs -0 -r clang-format --dry-run -Werror
}

# A client includes any one public header first and compiles as C++17, whatever the library itself is built with.
checkPublicHeaders() {
    local compiler=$1
    find "$root/include/orn" -name '*.h' -print0 | sort -z |
        xargs -0 -r -I '{}' -P "$(nproc)" "$compiler" -x c++ -std=c++17 -Wall -Wextra -Werror \
            -fsyntax-only -I "$root/include" -include '{}' /dev/null
}

# runTests BUILD-DIRECTORY [CTEST-ARGUMENT...]
runTests() {
    local directory=$root/$1
    shift
    "${runner[@]+"${runner[@]}"}" ctest --test-dir "$directory" --output-on-failure -j2 --no-tests=error \
        --timeout 600 "$@" | tee "$directory/ctest.out"
}

closingLines() {
    grep -E 'tests passed|Total Test time' "$root/$1/ctest.out"
}

# A build may run what it has just linked (the tests are listed by their own programs), so it too runs as the
# sanitizers need it.
runBuild() {
    "${runner[@]+"${runner[@]}"}" cmake --build "$root/$1"
}

debugBuild() {
    configure debug build-debug -DORN_WERROR=ON -DORN_BUILD_BENCH=ON -DORN_TEST_OWN_DEBUG_INFO=ON
    runBuild build-debug
}

# clangBuild PRESET BUILD-DIRECTORY [CMAKE-ARGUMENT...]
clangBuild() {
    CC=clang CXX=clang++ configure "$1" "$2" -DORN_WERROR=ON -DORN_BUILD_BENCH=OFF "${@:3}"
    runBuild "$2"
}

# A short run each, on a copy of the corpus: enough to see that the targets still work. The real thing is the
# preset "fuzz", which has the whole library instrumented.
fuzzBriefly() {
    local program parser work
    for program in "$root/$1"/bin/fuzz_*; do
        parser=${program##*/fuzz_}
        work=$(mktemp -d)
        cp -r "$root/fuzz/corpus/$parser/." "$work/"
        "${runner[@]+"${runner[@]}"}" "$program" -max_total_time=3 -rss_limit_mb=4096 -timeout=20 \
            -artifact_prefix="$root/$1/" "$work" 2>&1 | tail -n 1
        rm -rf "$work"
    done
}

# Kernels that spread mappings over more bits than the sanitizers' fixed shadows leave free kill these programs
# at random at their start; without randomisation they always fit. Where a container forbids to switch it off,
# it has to go as it is.
chooseRunner() {
    if setarch "$(uname -m)" -R true 2>/dev/null; then
        runner=(setarch "$(uname -m)" -R)
    fi
}

# sanitizerWorks SANITIZERS: several runs, since the failure above is a matter of chance.
sanitizerWorks() {
    local work code=0
    work=$(mktemp -d)
    printf 'int main() { return 0; }\n' >"$work/probe.cpp"
    clang++ "-fsanitize=$1" -o "$work/probe" "$work/probe.cpp" || code=1
    for _ in 1 2 3 4 5; do
        ((code == 0)) || break
        "${runner[@]+"${runner[@]}"}" "$work/probe" >/dev/null 2>&1 || code=1
    done
    rm -rf "$work"
    return "$code"
}

# The leak check stops the process to look at it, which some containers forbid; the rest of the sanitizer is
# worth having without it.
chooseSanitizerOptions() {
    export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_stack_use_after_return=1:check_initialization_order=1}
    export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
    export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$root/scripts/tsan.supp}
    sanitizerWorks address,undefined && return 0
    ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0
    sanitizerWorks address,undefined || fail "programs under the address sanitizer do not run on this machine"
    note "leaks are not looked for: the leak check cannot run on this machine"
}

# checkTidy BUILD-DIRECTORY: of the clang build, whose command lines clang-tidy understands. The tests are left
# out: what the macros of a test framework unfold to would need a rule book of its own.
checkTidy() {
    (cd "$root" && find src tools -name '*.cpp' -print0 | sort -z |
        xargs -0 -r -n 1 -P "$(nproc)" clang-tidy --quiet -p "$root/$1" 2> >(grep -v 'warnings\? generated' >&2))
}

fullRun() {
    step "Check the public headers alone (clang, C++17)" checkPublicHeaders clang++
    chooseRunner
    chooseSanitizerOptions
    step "Build with address and undefined-behaviour sanitizers (clang)" clangBuild asan build-asan -DORN_BUILD_FUZZ=ON
    step "Test with address and undefined-behaviour sanitizers" runTests build-asan
    configurations+=(build-asan)
    step "Fuzz every parser for a moment" fuzzBriefly build-asan
    if sanitizerWorks thread; then
        step "Build with the thread sanitizer (clang)" clangBuild tsan build-tsan -DORN_TESTS_OF_THREADS=ON
        step "Test with the thread sanitizer" runTests build-tsan -LE slow
        configurations+=(build-tsan)
    else
        note "data races are not looked for: programs under the thread sanitizer do not run on this machine"
    fi
    step "Run clang-tidy" checkTidy build-asan
    step "Quick start (release)" "$root/scripts/quickstart.sh"
    step "Quick start on an installed program" "$root/scripts/quickstart.sh" /bin/ls
}

printClosing() {
    local directory
    printf '\nAll passed after %s.\n' "$(secondsSince "$1")"
    printNotes
    for directory in "${configurations[@]:1}"; do
        printf '\n%s:\n' "$directory"
        closingLines "$directory"
    done
    printf '\n%s:\n' "${configurations[0]}"
    closingLines "${configurations[0]}"
}

main() {
    readArguments "$@"
    local began configurations=(build-debug)
    began=$(microseconds)
    export ORN_TEST_INPUTS=${ORN_TEST_INPUTS:-$root/build-inputs}
    step "Install what is missing" installNeeds
    step "Gather inputs for the tests" gatherInputs
    noteMissingInputs
    chooseBuildTools
    step "Check the code format" checkFormat
    step "Check the public headers alone (gcc, C++17)" checkPublicHeaders g++
    step "Build debug (gcc)" debugBuild
    step "Test the debug build" runTests build-debug
    if [[ $quick == no ]]; then
        fullRun
    fi
    printClosing "$began"
}

main "$@"
