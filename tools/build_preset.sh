#!/usr/bin/env bash
# Installs what is missing, then configures and builds a preset: everything, or only the targets named.
#   tools/build_preset.sh PRESET [TARGET...]
set -euo pipefail

tools="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
preset=${1:?usage: tools/build_preset.sh PRESET [TARGET...]}
shift

step() {
    echo "== $1"
    "${@:2}" || {
        echo "build_preset: failed at: $1" >&2
        exit 1
    }
}

cd "$tools/.."
jobs=$("$BASH" tools/build_jobs.sh)
step "install packages" "$BASH" tools/install_packages.sh
step "configure $preset" cmake --preset "$preset"
step "build $preset with $jobs jobs" cmake --build --preset "$preset" --parallel "$jobs" ${1:+--target "$@"}
