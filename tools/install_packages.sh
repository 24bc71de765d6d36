#!/usr/bin/env bash
# Installs those packages of tools/packages.txt that are missing, and does nothing when none is.
#   tools/install_packages.sh [GROUP...]     the packages without a group, and those of the groups named
set -euo pipefail
export LC_ALL=C

list="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/packages.txt"

fail() {
    echo "install_packages: $*" >&2
    exit 1
}

# Prints the packages of the list that apply, one a line.
wanted() {
    local package group
    while read -r package group _; do
        [[ -z $package || $package == '#'* ]] && continue
        [[ -z $group || " $* " == *" $group "* ]] && echo "$package"
    done <"$list"
    return 0
}

is_installed() {
    # A package that several architectures have gives several lines; one that is installed is enough.
    dpkg-query --show --showformat='${db:Status-Status}\n' "$1" 2>/dev/null | grep -x installed >/dev/null
}

missing_of() {
    local package
    for package in "$@"; do
        is_installed "$package" || echo "$package"
    done
}

as_root() {
    if [[ $(id -u) == 0 ]]; then
        env DEBIAN_FRONTEND=noninteractive "$@"
    else
        sudo env DEBIAN_FRONTEND=noninteractive "$@"
    fi
}

[[ -r $list ]] || fail "cannot read $list"
mapfile -t packages < <(wanted "$@")

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "install_packages: this system has no Debian packages; nothing was installed." >&2
    echo "install_packages: the build needs what Debian calls: ${packages[*]}" >&2
    exit 0
fi

mapfile -t missing < <(missing_of "${packages[@]}")
[[ ${#missing[@]} == 0 ]] && exit 0

echo "Missing packages: ${missing[*]}"
if [[ $(id -u) != 0 ]] && ! command -v sudo >/dev/null; then
    fail "cannot install without root or sudo. As root, run: apt-get install ${missing[*]}"
fi

# An update that fails may only mean that one source is out of reach, so the installation decides.
as_root apt-get -q update || echo "install_packages: apt-get update failed; trying with the lists at hand." >&2
as_root apt-get -q -o DPkg::Lock::Timeout=120 install -y --no-install-recommends "${missing[@]}" \
    || fail "apt-get could not install: ${missing[*]}"

mapfile -t missing < <(missing_of "${missing[@]}")
[[ ${#missing[@]} == 0 ]] || fail "still missing after the installation: ${missing[*]}"
