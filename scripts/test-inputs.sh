#!/usr/bin/env bash
# Brings real files that no package installs in a usable place, as input for the tests: a few kernel modules, out
# of Debian's kernel package. The package is fetched and taken apart, never installed: installing it would build
# a boot image and belongs to the machine's owner.
#
# Usage: scripts/test-inputs.sh DIRECTORY    (leaves DIRECTORY/kernel/*.ko; does nothing when they are there)
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# From 8 KB to half a megabyte: a library without a device, drivers, file systems.
readonly modules=(libcrc32c loop isofs virtio_net fuse)

# The package "linux-image-cloud-ARCH" is empty and depends on the newest kernel; the cloud flavour is a third of
# the size of the full one.
kernelPackage() {
    apt-cache depends "linux-image-cloud-$(dpkg --print-architecture)" 2>/dev/null |
        awk '$1 == "Depends:" && $2 ~ /^linux-image-[0-9]/ && !found { print $2; found = 1 }'
}

# An index that is older than the archive names a file that is no longer served, hence the second attempt.
download() {
    local attempt package
    for attempt in 1 2; do
        ((attempt == 1)) || aptGet update || true
        package=$(kernelPackage)
        if [[ -n $package ]] &&
            apt-get -q -o APT::Sandbox::User=root -o Acquire::http::Timeout=30 download "$package"; then
            return 0
        fi
    done
    return 1
}

# Only complete sets get the final name: an interrupted run is repeated, not believed.
fetchKernelModules() {
    local target=$1 work module
    work=$(mktemp -d "$target.XXXXXX")
    # shellcheck disable=SC2064 # the directory as it is now
    trap "rm -rf '$work'" EXIT
    (cd "$work" && download) || return 1
    mkdir "$work/kernel"
    dpkg-deb --fsys-tarfile "$work"/linux-image-*.deb |
        tar -x -C "$work/kernel" --wildcards --strip-components=4 --no-anchored "${modules[@]/%/.ko}"
    mkdir "$work/flat"
    for module in "${modules[@]}"; do
        find "$work/kernel" -name "$module.ko" -exec mv {} "$work/flat/" \;
        [[ -s $work/flat/$module.ko ]] || return 1
    done
    mv -T "$work/flat" "$target"
}

main() {
    (($# == 1)) || fail "usage: scripts/test-inputs.sh DIRECTORY"
    local directory=$1
    if [[ -d $directory/kernel ]]; then
        printf 'the kernel modules are there: %s\n' "$directory/kernel"
        return 0
    fi
    if ! command -v apt-get >/dev/null || ! command -v dpkg-deb >/dev/null; then
        fail "kernel modules come out of a Debian package, and this machine has no apt-get and dpkg-deb"
    fi
    mkdir -p "$directory"
    fetchKernelModules "$directory/kernel"
}

main "$@"
