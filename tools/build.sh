#!/usr/bin/env bash
# Configures and builds one variant: tools/build.sh <normal|asan|tsan>.
# The build lands in build/<variant>.
set -euo pipefail
cd "$(dirname "$0")/.."

variant=${1:-normal}
case "$variant" in
    normal) sanitize="" ;;
    asan) sanitize="address" ;;
    tsan) sanitize="thread" ;;
    *) echo "unknown variant $variant" >&2; exit 2 ;;
esac
# ccache, when the machine has it, lets several checkouts share compiled objects.
launcher=()
if command -v ccache >/dev/null; then
    export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$(dirname "$PWD")}" CCACHE_NOHASHDIR=1
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "build/$variant" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKAL_SANITIZE="$sanitize" "${launcher[@]}" >/dev/null
cmake --build "build/$variant"
