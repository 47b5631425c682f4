#!/usr/bin/env bash
# The demo: the daemon in a private KAL_ROOT, started, shown, and stopped.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh
bash tools/build.sh normal >/dev/null

bin=$PWD/build/normal/bin
root=$PWD/build/demo-root
rm -rf "$root"
resources="$root/Library/Frameworks/KALPhoneKit.framework/Resources"
mkdir -p "$root/var/tmp" "$resources"
export KAL_ROOT=$root

# A line-monitor program must be in place for the daemon to start.
printf '#!/bin/sh\nexit 0\n' >"$resources/KALLineMonitor"
chmod 755 "$resources/KALLineMonitor"

log="$root/var/tmp/com.orvane/KALDeviceMaster"
echo "== starting kaldevicemaster with KAL_ROOT=$root"
"$bin/kaldevicemaster" &
pid=$!
for _ in $(seq 1 200); do
    grep -q "Adding logtrasher thread" "$log" 2>/dev/null && break
    sleep 0.05
done
echo "== its log so far ($log):"
cat "$log"
echo "== stopping it with SIGTERM"
kill -TERM "$pid"
rc=0
wait "$pid" || rc=$?
echo "== exit status $rc; the goodbye line:"
grep "Goodbye, World!" "$log"
