#!/usr/bin/env bash
# The event-latency benchmark, one command:
#     bash bench/event_latency.sh            # the full run, a few minutes
#     bash bench/event_latency.sh --quick    # 2 short runs, for development
# Builds an optimised tree (build/bench, RelWithDebInfo, so perf can name
# functions) with the daemon and the benchmark's programs, then runs the
# driver under umockdev, which fakes the adapters. Prints the commit and the
# machine first, then the table (bench/README.md explains it).
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh >/dev/null
launcher=()
if command -v ccache >/dev/null; then
    export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$(dirname "$PWD")}" CCACHE_NOHASHDIR=1
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" >/dev/null
cmake --build build/bench --target kal-eventbench >/dev/null

# Other work on the machine disturbs the measurement less when the benchmark
# (the daemon, the bus, the clients and the floor inherit it) runs ahead of
# it; only root may raise a priority. KAL_BENCH_NICE=0 leaves it alone.
nice_level=${KAL_BENCH_NICE:--10}
[ "$(id -u)" -eq 0 ] || nice_level=0

echo "commit $(git rev-parse --short HEAD 2>/dev/null || echo unknown)$(git diff --quiet HEAD 2>/dev/null || echo ' (with local changes)')"
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(uname -sr)"
echo "nice level $nice_level"
exec nice -n "$nice_level" tests/support/umockdev-test-wrapper.sh build/bench/bin/kal-eventbench "$@"
