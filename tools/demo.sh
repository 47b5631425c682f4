#!/usr/bin/env bash
# The demo: the daemon with two simulated adapters (umockdev) and the
# line-monitor simulator, in a private KAL_ROOT. Ring a line, pick up, dial
# digits; then the answering machine kal-answer: two callers leave messages,
# the owner checks them remotely with the PIN, kalctl lists and exports
# them; crash a line monitor and watch the daemon restart it, then stop.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh
bash tools/build.sh normal >/dev/null

export KAL_DEMO_BIN=$PWD/build/normal/bin
export KAL_DEMO_DATA=$PWD/data
export KAL_ROOT=$PWD/build/demo-root
rm -rf "$KAL_ROOT"
resources="$KAL_ROOT/Library/Frameworks/KALPhoneKit.framework/Resources"
mkdir -p "$KAL_ROOT/var/tmp" "$resources"
for program in KALLineMonitor ZRXLineMonitor; do
    ln -s "$KAL_DEMO_BIN/kal-linesim" "$resources/$program"
done
cp build/normal/resources/tone450.raw "$resources/tone450.raw"
# Keep umockdev's scratch files out of /tmp.
export TMPDIR=$PWD/build/demo-tmp
mkdir -p "$TMPDIR"

exec umockdev-run -d data/umockdev/demo-adapters.umockdev -- bash tools/demo-session.sh
