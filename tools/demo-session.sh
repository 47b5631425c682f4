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
kalctl() { "$bin/kalctl" "$@"; }
# The emulated voice modem (USB serial 12345678) and what its line monitor
# sent it, once it has: the oldest AT command or stream end with that prefix.
modem() { "$bin/kal-modemsim" ctl -w 10 MODEM "$@"; }
modem_told() { modem wait-command "$1" | sed -e 's/^ok /  modem got: /'; }
# What the line monitor of KL1001 was told, once it has been: the oldest
# command with that character that no earlier wait returned.
told() {
    sim KL1001 wait-command "$1" |
        sed -E -e "s|$KAL_ROOT|\$KAL_ROOT|g" -e 's/ (stop|flags|length|dial|pause)=[^ ]*//g' \
            -e 's/^ok /  line monitor told: /'
}
# A background kalctl's output, once it has ended.
finished() {
    local rc=0
    wait "$1" || rc=$?
    sed -e "s|$KAL_ROOT|\$KAL_ROOT|g" -e 's/^/  | /' "$2"
    echo "  (kalctl exit status $rc)"
}

step "a private system bus with the daemon's own policy"
bus_dir=$KAL_ROOT/run/dbus
mkdir -p "$bus_dir"
sed -e "s|@KAL_BUS_SOCKET@|$bus_dir/system_bus_socket|" \
    -e "s|@KAL_DBUS_POLICY@|$KAL_DEMO_DATA/dbus/com.orvane.devicemaster.conf|" \
    -e "s|@KAL_TEST_USER@|$(id -un)|" \
    "$KAL_DEMO_DATA/dbus/test-bus.conf.in" >"$bus_dir/bus.conf"
dbus-daemon --config-file="$bus_dir/bus.conf" --nofork --nopidfile --print-address=1 \
    >"$bus_dir/address" &
bus=$!
for _ in $(seq 1 200); do [ -s "$bus_dir/address" ] && break; sleep 0.05; done
export DBUS_SYSTEM_BUS_ADDRESS=$(head -n1 "$bus_dir/address")
echo "DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SYSTEM_BUS_ADDRESS"

step "a V.253 voice modem: kal-modemsim behind the testbed's /dev/ttyACM0"
"$bin/kal-modemsim" --link "$UMOCKDEV_DIR/dev/ttyACM0" --serial MODEM --speed 20 2>/dev/null &
modemsim=$!
modem status

step "starting kaldevicemaster (KAL_ROOT=$KAL_ROOT)"
KAL_LINESIM_SPEED=20 "$bin/kaldevicemaster" 2>/dev/null &
daemon=$!
trap 'kill $daemon $monitor $modemsim $answer $bus 2>/dev/null || true' EXIT
monitor=""
wait_log "Adding logtrasher thread"
wait_log "Vending Listener"
show_log "Hello, World!|Assigning #|Trying to initialize|Successful fork"

step "kalctl lines"
for _ in $(seq 1 100); do "$bin/kalctl" lines >/dev/null 2>&1 && break; sleep 0.05; done
"$bin/kalctl" lines

step "kalctl monitor: a client subscribed to every event (its output follows below)"
"$bin/kalctl" monitor >"$KAL_ROOT/monitor.txt" 2>&1 &
monitor=$!
# Its last subscription is to request outcomes.
wait_log "subscription array for 'RequestComplete'"

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
for _ in $(seq 1 200); do grep -q "KALHookStatus.*KALHookContentsKey = 1" "$KAL_ROOT/monitor.txt" && break; sleep 0.05; done
echo "-- what the client saw:"
grep -E "KALRingDetect|KALCallerID|KALHookStatus|KALDigitDialed" "$KAL_ROOT/monitor.txt"

# Audio for the voice-modem call below, made of the recording beep the build
# generates (half a second of 450 Hz).
audio=$KAL_ROOT/audio
messages=$KAL_ROOT/messages
mkdir -p "$audio" "$messages"
tone() { for _ in $(seq 1 $((2 * $2))); do cat "$KAL_DEMO_RESOURCES/tone450.raw"; done >"$audio/$1"; }
tone main.raw 30    # "Press 1 to leave a message."
tone mailbox.raw 2  # "Leave your message after the tone."

# The caller hangs up: a line reversal, then the exchange's busy tone.
hang_up() {
    sim KL1001 reversal
    sim KL1001 tone busy
}

# The answering machine: kal-answer on the daemon (tools/demo-answer.sh).
answer=""
source "$(dirname "$0")/demo-answer.sh"
answer_start
answer_callers
answer_owner_checks
answer_messages
answer_web
answer_stop

step "the same call on the voice modem: ring, caller ID, greeting, 1 for the mailbox, a message"
modem_told AT+VIT  # the line monitor has set the modem up for voice
modem callerid 5551234 JANE DOE
modem ring
kalctl voicemail 12345678 --greeting "$audio/main.raw" --choices 1,9 --token modem-1 \
    --wait --timeout 30 >"$KAL_ROOT/modem-1.txt" 2>&1 &
pid=$!
modem_told AT+VLS=1
modem_told AT+VTX
modem digits 1
finished $pid "$KAL_ROOT/modem-1.txt"
echo "-- mailbox 1: its greeting, then the caller speaks for two seconds and hangs up"
modem audio-tone 2 >/dev/null
kalctl voicemail 12345678 --greeting "$audio/mailbox.raw" --message "$messages/modem-0001.raw" \
    --token modem-2 --wait --timeout 30 >"$KAL_ROOT/modem-2.txt" 2>&1 &
pid=$!
modem_told AT+VRX
sleep 0.5
modem tone busy
finished $pid "$KAL_ROOT/modem-2.txt"
sent=$(modem recorded | sed -n 's/^ok //p')
echo "-- recorded: $(stat -c %s "$messages/modem-0001.raw") bytes in \$KAL_ROOT/messages/modem-0001.raw;" \
    "the modem sent $((${#sent} / 2))"
kalctl hangup 12345678
modem_told ATH
echo "-- what the client saw of the modem's line:"
grep -E "(KALRingDetect|KALCallerID) 12345678" "$KAL_ROOT/monitor.txt" || true

step "the line monitor of ZR2002 crashes; the supervisor restarts it"
sim ZR2002 crash 11 || true
wait_log "Trying to restart rescanned QLX1"
# The new line monitor answers once it is up and has its orders.
orders=$(sim ZR2002 orders)
show_log "terminated with signal|restart rescanned|Successful fork" 4
echo "$orders"

step "stopping the daemon with SIGTERM"
kill $monitor 2>/dev/null || true
kill -TERM $daemon
rc=0
wait $daemon || rc=$?
trap - EXIT
echo "exit status $rc"
show_log "quit handler|Goodbye, World!"
kill $modemsim $bus 2>/dev/null || true
