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
cmake -S . -B "build/$variant" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKAL_SANITIZE="$sanitize" >/dev/null
cmake --build "build/$variant"
