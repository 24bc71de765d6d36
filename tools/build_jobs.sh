#!/usr/bin/env bash
# Prints how many compilers may run at once: one for each core, and fewer where memory would run short.
# CMAKE_BUILD_PARALLEL_LEVEL, where it is set, is the answer.
set -euo pipefail

# Reckoned for each compiler: the sources that include OpenVDB are large.
kib_per_job=$((3 * 1024 * 1024))

if [[ ${CMAKE_BUILD_PARALLEL_LEVEL:-} =~ ^[1-9][0-9]*$ ]]; then
    echo "$CMAKE_BUILD_PARALLEL_LEVEL"
    exit 0
fi

jobs=$(nproc)
kib=$(sed -n 's/^MemAvailable: *\([0-9]*\) kB$/\1/p' /proc/meminfo 2>/dev/null || true)

# A container may be allowed less than the machine has.
limit=$(cat /sys/fs/cgroup/memory.max 2>/dev/null || echo max)
if [[ $limit =~ ^[0-9]{1,18}$ ]] && { [[ -z $kib ]] || ((limit / 1024 < kib)); }; then
    kib=$((limit / 1024))
fi

if [[ -n $kib ]]; then
    fit=$((kib / kib_per_job))
    ((fit < jobs)) && jobs=$fit
fi
((jobs >= 1)) || jobs=1
echo "$jobs"
