#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) with clang, ASan and UBSan in
# build/fuzz, then runs each for a fixed number of inputs, starting from its
# committed seed corpus. Fails when a target finds a crash (or a sanitizer
# report); the input that did it is left in build/fuzz/artifacts.
#   tools/fuzz.sh [runs per target]   (default 30000)
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${1:-30000}
launcher=()
if command -v ccache >/dev/null; then
    export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$(dirname "$PWD")}" CCACHE_NOHASHDIR=1
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKAL_FUZZ=ON \
    "${launcher[@]}" >/dev/null
cmake --build build/fuzz --target kal_fuzzers

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
status=0
for target in dmp_read lineisr bus_values; do
    # New inputs go to a scratch folder, never into the committed seeds; it
    # starts empty, so a run is the same every time.
    work="build/fuzz/corpus/$target"
    rm -rf "$work"
    artifacts="build/fuzz/artifacts/$target/"
    mkdir -p "$work" "$artifacts"
    log="build/fuzz/$target.log"
    if "build/fuzz/bin/${target}_fuzzer" -runs="$runs" -max_len=8192 -seed=1 \
            -artifact_prefix="$artifacts" "$work" "fuzz/corpus/$target" >"$log" 2>&1; then
        echo "fuzz $target: $(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$log")"
    else
        echo "fuzz $target: FAILED (see $log and $artifacts)"
        tail -n 40 "$log"
        status=1
    fi
done
exit $status
