#!/usr/bin/env bash
# Runs inside umockdev-run (see demo.sh): the fake adapters are visible here.
set -euo pipefail

bin=$KAL_DEMO_BIN
log="$KAL_ROOT/var/tmp/com.orvane/KALDeviceMaster"
sim() { "$bin/kal-linesim" ctl -w 10 "$@"; }
step() { printf '\n== %s\n' "$*"; }
wait_log() {
    for _ in $(seq 1 400); do grep -q -- "$1" "$log" 2>/dev/null && return 0; sleep 0.05; done
    echo "timed out waiting for: $1" >&2
    return 1
}
show_log() { grep -E -- "$1" "$log" | sed -E 's/^[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} ([0-9:]{8}) [0-9]{4} /\1 /' | tail -n "${2:-20}"; }

step "starting kaldevicemaster (KAL_ROOT=$KAL_ROOT)"
KAL_LINESIM_SPEED=20 "$bin/kaldevicemaster" 2>/dev/null &
daemon=$!
trap 'kill $daemon 2>/dev/null || true' EXIT
wait_log "Adding logtrasher thread"
show_log "Hello, World!|Assigning #|Trying to initialize|Successful fork"

step "the line monitors running (one per adapter) and the orders each received"
sim KL1001 orders
sim ZR2002 orders

step "a call comes in on KL1001: two rings, caller ID, pick-up, digits, hang-up"
sim KL1001 ring
sim KL1001 callerid "5551234 JANE DOE"
sim KL1001 ring
sim KL1001 offhook
sim KL1001 digits 42#
sim KL1001 onhook
wait_log "Read 1 bytes from QLX0: 'p'"
show_log "Read [0-9]+ bytes from QLX0" 12

step "the line monitor of ZR2002 crashes; the supervisor restarts it"
sim ZR2002 crash 11 || true
wait_log "Trying to restart rescanned QLX1"
show_log "terminated with signal|restart rescanned|Successful fork" 4
sim ZR2002 orders

step "stopping the daemon with SIGTERM"
kill -TERM $daemon
rc=0
wait $daemon || rc=$?
trap - EXIT
echo "exit status $rc"
show_log "quit handler|Goodbye, World!"
