# shellcheck shell=bash
# What the scripts of this directory share: saying what is done and how long it took, and installing what is
# missing. Sourced, never run; needs nothing but bash.

export LC_ALL=C.UTF-8

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck disable=SC2034 # for the scripts that source this file
readonly root

notes=()

fail() {
    printf 'error: %s\n' "$*" >&2
    exit 1
}

# Something that a person should know but that does not stop the work. Repeated by printNotes at the end, where
# it is not lost among the lines of a build.
note() {
    printf 'note: %s\n' "$*"
    notes+=("$*")
}

printNotes() {
    local text
    for text in "${notes[@]+"${notes[@]}"}"; do
        printf 'note: %s\n' "$text"
    done
}

microseconds() {
    printf '%s' "${EPOCHREALTIME//[.,]/}"
}

secondsSince() {
    local tenths=$((($(microseconds) - $1) / 100000))
    printf '%d.%d s' $((tenths / 10)) $((tenths % 10))
}

# step NAME COMMAND...: says what is being done, does it, says how long it took; leaves the script when it fails.
# The command runs in a subshell of its own: "command || ..." would switch off "set -e" inside a function, and
# the step would go on past its first error.
step() {
    local name=$1 began code
    shift
    began=$(microseconds)
    printf '\n==> %s\n' "$name"
    set +e
    (
        set -e
        "$@"
    )
    code=$?
    set -e
    if ((code != 0)); then
        printf 'FAILED: %s (status %d, after %s)\n' "$name" "$code" "$(secondsSince "$began")" >&2
        exit "$code"
    fi
    printf '    %s: %s\n' "$name" "$(secondsSince "$began")"
}

# Ninja where it is there, CMake's default otherwise; ccache where it is there. Words of the caller win.
chooseBuildTools() {
    if [[ -z ${CMAKE_GENERATOR:-} ]] && command -v ninja >/dev/null; then
        export CMAKE_GENERATOR=Ninja
    fi
    if [[ -z ${CMAKE_CXX_COMPILER_LAUNCHER:-} ]] && command -v ccache >/dev/null; then
        export CMAKE_CXX_COMPILER_LAUNCHER=ccache
        # The tests have a precompiled header, which ccache passes by unless it is told that this is meant.
        export CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS:-pch_defines,time_macros}
    fi
    export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
}

# A need is written PACKAGE or PACKAGE=PROBE. It is met by the installed package, or by the probe: a command, or
# a file by its absolute path. So a compiler that did not come from a package is as good as one that did, and a
# machine that is no Debian can do the work once everything is there.
needIsMet() {
    local package=${1%%=*} probe=${1#*=}
    if [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]]; then
        return 0
    fi
    [[ $1 == *=* ]] || return 1
    if [[ $probe == /* ]]; then
        [[ -e $probe ]]
    else
        command -v "$probe" >/dev/null
    fi
}

# Prints the packages among the needs that are not met.
missingPackages() {
    local need
    for need in "$@"; do
        needIsMet "$need" || printf '%s\n' "${need%%=*}"
    done
}

asRoot() {
    if ((EUID == 0)); then
        "$@"
    elif [[ -t 0 ]]; then
        sudo "$@"
    else
        sudo -n "$@"
    fi
}

canInstall() {
    command -v apt-get >/dev/null && { ((EUID == 0)) || command -v sudo >/dev/null; }
}

aptGet() {
    asRoot env DEBIAN_FRONTEND=noninteractive apt-get \
        -o Acquire::Retries=2 -o Acquire::http::Timeout=30 -o Dpkg::Use-Pty=0 -q "$@"
}

# The index is fetched only when something is missing. A failed fetch is not the end: the packages may be in the
# local archive, and the installation says what is wrong if they are not.
aptInstall() {
    aptGet update || true
    aptGet install -y --no-install-recommends "$@"
}

# needPackages NEED...: installs what is missing, or leaves the script with a clear word on what is.
needPackages() {
    local missing
    mapfile -t missing < <(missingPackages "$@")
    if ((${#missing[@]} == 0)); then
        printf 'everything is there, nothing to install\n'
        return 0
    fi
    printf 'missing: %s\n' "${missing[*]}"
    canInstall || fail "these packages are missing: ${missing[*]}. Installing them takes apt-get and root or sudo." \
        "Have them installed (apt-get install --no-install-recommends ${missing[*]}) and run this again."
    aptInstall "${missing[@]}" || fail "could not install: ${missing[*]}. The lines above say why;" \
        "without a network or without rights, have them installed by hand and run this again."
}

# What it takes to compile the library and the command line.
# shellcheck disable=SC2034 # for the scripts that source this file
readonly buildNeeds=(
    build-essential=g++
    cmake=cmake
    ninja-build=ninja
    liblog4cplus-dev=/usr/include/log4cplus/logger.h
    zlib1g-dev=/usr/include/zlib.h
    libiberty-dev=/usr/include/libiberty/demangle.h
    libcli11-dev=/usr/include/CLI/CLI.hpp
    nlohmann-json3-dev=/usr/include/nlohmann/json.hpp
)

# configure PRESET BUILD-DIRECTORY [CMAKE-ARGUMENT...]: the presets live in the root of the tree.
configure() {
    local preset=$1 directory=$2
    shift 2
    (cd "$root" && cmake --preset "$preset" -B "$directory" "$@")
}

# build BUILD-DIRECTORY
build() {
    cmake --build "$root/$1"
}
