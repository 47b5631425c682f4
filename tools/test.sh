#!/usr/bin/env bash
# The test command: installs what it needs, checks formatting, then builds
# and runs the whole suite three times (plain, ASan+UBSan, TSan), and runs
# each fuzz target for a fixed number of inputs (tools/fuzz.sh). Fails when
# any of them fails.
set -uo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh browser || exit 1

status=0
if ! git ls-files -co --exclude-standard -- 'src/*.cc' 'src/*.h' 'tests/*.cc' 'tests/*.h' 'bench/*.cc' \
        'fuzz/*.cc' 'fuzz/*.h' \
        | xargs -r clang-format --dry-run --Werror; then
    echo "clang-format: the files above need formatting (clang-format -i)"
    status=1
fi

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

for variant in normal asan tsan; do
    echo "=== $variant build ==="
    if ! bash tools/build.sh "$variant"; then
        echo "=== $variant: build FAILED ==="
        status=1
        continue
    fi
    if ! (cd "build/$variant" && ctest --output-on-failure -j2); then
        echo "=== $variant: tests FAILED ==="
        status=1
    fi
done
echo "=== fuzz ==="
if ! bash tools/fuzz.sh; then
    echo "=== fuzz: FAILED ==="
    status=1
fi
[ $status -eq 0 ] && echo "=== all three builds and the fuzz run passed ==="
exit $status
