#!/usr/bin/env bash
# The demo: the daemon with two simulated adapters and an emulated voice
# modem (umockdev), the line-monitor simulator and the modem emulator, in a
# private KAL_ROOT. Ring a line, pick up, dial digits; then the answering
# machine kal-answer: two callers leave messages, the owner checks them
# remotely with the PIN, kalctl lists and exports them; the same voicemail
# call on the voice modem; crash a line monitor and watch the daemon restart
# it, then stop.
#
# --open-page: stop at the messages page's address until Enter, so it can be
# opened in a browser while kal-answer serves it.
set -euo pipefail
cd "$(dirname "$0")/.."
case "${1:-}" in
--open-page) export KAL_DEMO_OPEN_PAGE=1 ;;
"") ;;
*)
    echo "usage: bash tools/demo.sh [--open-page]" >&2
    exit 2
    ;;
esac

bash tools/install-deps.sh
bash tools/build.sh normal >/dev/null

export KAL_DEMO_BIN=$PWD/build/normal/bin
export KAL_DEMO_DATA=$PWD/data
export KAL_ROOT=$PWD/build/demo-root
rm -rf "$KAL_ROOT"
# The directories the daemon was built to look in (KAL_RESOURCES_DIR,
# KAL_STATE_DIR), under the private root.
cache_var() { sed -n "s|^$1:[A-Z]*=||p" build/normal/CMakeCache.txt; }
export KAL_DEMO_RESOURCES=$KAL_ROOT$(cache_var KAL_RESOURCES_DIR)
resources=$KAL_DEMO_RESOURCES
mkdir -p "$KAL_ROOT/var/tmp" "$resources" "$KAL_ROOT$(cache_var KAL_STATE_DIR)"
for program in KALLineMonitor ZRXLineMonitor; do
    ln -s "$KAL_DEMO_BIN/kal-linesim" "$resources/$program"
done
# The voice modem gets the real line monitor; kal-modemsim is the modem.
ln -s "$KAL_DEMO_BIN/V253LineMonitor" "$resources/V253LineMonitor"
cp build/normal/resources/tone450.raw "$resources/tone450.raw"
# Keep umockdev's scratch files out of /tmp.
export TMPDIR=$PWD/build/demo-tmp
mkdir -p "$TMPDIR"

exec umockdev-run -d data/umockdev/demo-adapters.umockdev -d data/umockdev/voice-modem.umockdev \
    -- bash tools/demo-session.sh
