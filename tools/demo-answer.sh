# The answering machine part of the demo, sourced by demo-session.sh (which
# defines sim, step, told, hang_up and the variables used here): kal-answer
# with a sample configuration and a WAV greeting, two callers leaving
# messages, the owner checking remotely with the PIN, then kalctl messages
# and the messages page's address (kalctl web).

answer_log=$KAL_ROOT/kal-answer.log
wait_answer_log() {
    for _ in $(seq 1 400); do grep -q -- "$1" "$answer_log" 2>/dev/null && return 0; sleep 0.05; done
    echo "timed out waiting for kal-answer: $1" >&2
    return 1
}
# kal-answer's call states since the last look.
answer_seen=0
show_answer() {
    local total
    total=$(wc -l <"$answer_log")
    sed -n "$((answer_seen + 1)),${total}p" "$answer_log" |
        { grep -E -- "->|message [0-9]+ in|registered|answering" || true; } |
        sed -E -e "s|$KAL_ROOT|\$KAL_ROOT|g" -e 's/^/  /'
    answer_seen=$total
}
messages_listed() {
    for _ in $(seq 1 200); do
        [ "$("$bin/kalctl" messages 2>/dev/null | grep -c -E '^ +[0-9]+ ')" -ge "$1" ] && return 0
        sleep 0.05
    done
    echo "timed out waiting for $1 messages" >&2
    return 1
}

answer_start() {
    step "kal-answer: a sample configuration, a WAV greeting, and the service started"
    local etc=$KAL_ROOT/etc
    mkdir -p "$etc/kal-answer"
    # Greetings as a person would make them: WAV files at whatever rate the
    # tool writes (espeak-ng: 22050 Hz); kal-answer converts them once.
    espeak-ng -w "$etc/kal-answer/greeting.wav" \
        "Hello, you have reached the demo. Press 2 for Jane, star for the owner, or leave a message after the tone."
    espeak-ng -w "$etc/kal-answer/jane.wav" "This is Jane. Leave me a message."
    # The announcement: a script that gets the message's details in its
    # environment (a real one would mail the WAV or pop up a notification).
    cat >"$etc/kal-answer/announce.sh" <<'SH'
#!/bin/sh
echo "new message $KAL_MESSAGE_ID in mailbox $KAL_MESSAGE_MAILBOX from ${KAL_MESSAGE_CALLER_NUMBER:-a withheld number}, $KAL_MESSAGE_DURATION s, $KAL_MESSAGES_WAITING waiting" >>"$KAL_ROOT/announced.txt"
SH
    chmod +x "$etc/kal-answer/announce.sh"
    cat >"$etc/kal-answer.conf" <<CONF
[answer]
rings = 2
greeting = $etc/kal-answer/greeting.wav
max_message_length = 5
min_message_length = 1
remote_check_digit = *
announce_command = $etc/kal-answer/announce.sh

[mailbox 1]
pin = 1234

[mailbox 2]
greeting = $etc/kal-answer/jane.wav
pin = 4321
CONF
    sed -e "s|$KAL_ROOT|\$KAL_ROOT|g" -e 's/^/  | /' "$etc/kal-answer.conf"
    # The prompts the build spoke, where an installation keeps them.
    local sounds=$KAL_ROOT/usr/share/kal-answer/sounds
    mkdir -p "$sounds"
    cp "$KAL_DEMO_BIN"/../answer-sounds/*.raw "$sounds/"
    KAL_ANSWER_SOUNDS=$sounds KAL_ANSWER_WEB=$PWD/data/web "$bin/kal-answer" 2>"$answer_log" &
    answer=$!
    wait_answer_log "registered with kaldevicemaster"
    show_answer
    echo "-- the greeting as the service found it: $(soxi_like "$etc/kal-answer/greeting.wav")"
}

# Rate, channels and length from a WAV file's header (kalctl prints what
# libsndfile makes of an exported message; this shows the same for the
# greeting and checks it for the export).
soxi_like() {
    python3 - "$1" <<'PY'
import sys, wave
w = wave.open(sys.argv[1])
print(f"WAV, {w.getframerate()} Hz, {w.getnchannels()} channel(s), {w.getnframes() / w.getframerate():.1f} s")
PY
}

answer_callers() {
    step "JOHN SMITH (5551234) calls: after 2 rings the greeting, 2 for Jane's mailbox, a message"
    sim KL1001 clear >/dev/null
    sim KL1001 callerid "5551234 JOHN SMITH"
    sim KL1001 ring
    sim KL1001 ring
    told P
    sim KL1001 digits 2 >/dev/null
    told P
    told R
    told H  # kal-answer hangs up once the message is kept
    messages_listed 1
    show_answer

    step "a second caller with caller ID withheld leaves a message in mailbox 1 (presses nothing)"
    sim KL1001 clear >/dev/null
    sim KL1001 callerid "PRIVATE"
    sim KL1001 ring
    sim KL1001 ring
    told P
    told R
    told H
    messages_listed 2
    show_answer
    echo "-- announced by the configured command:"
    sed 's/^/  | /' "$KAL_ROOT/announced.txt"
}

answer_owner_checks() {
    step "the owner calls in: * at the greeting, PIN 1234, 1 for new messages, 2 saves the first"
    sim KL1001 clear >/dev/null
    sim KL1001 ring
    sim KL1001 ring
    told P
    sim KL1001 digits '*' >/dev/null
    told P  # "Please enter your PIN."
    sim KL1001 digits 1234 >/dev/null
    told P  # the check menu
    sim KL1001 digits 1 >/dev/null
    told P  # the envelope ("message from a withheld number, received at 1 4 3 5") and the message
    told P  # "Press 1 to hear it again, 2 to save it ..."
    sim KL1001 digits 2 >/dev/null
    told P  # no more new messages in mailbox 1: the main menu
    hang_up
    wait_answer_log "Checking -> Idle"
    show_answer
}

answer_messages() {
    step "kalctl messages and kalctl calls (through kal-answer's D-Bus interface)"
    "$bin/kalctl" messages
    echo
    "$bin/kalctl" calls
    local first
    first=$("$bin/kalctl" messages | awk 'NR == 2 { print $1 }')
    echo
    "$bin/kalctl" messages play "$first" "$KAL_ROOT/message-$first.wav" | sed "s|$KAL_ROOT|\$KAL_ROOT|g"
    echo "-- the exported file: $(soxi_like "$KAL_ROOT/message-$first.wav")"
}

# The messages page: its address, and what its API answers with the token
# and without it.
answer_web() {
    step "kalctl web: the messages page (127.0.0.1 only, the address carries the token)"
    local url
    url=$("$bin/kalctl" web)
    echo "$url"
    python3 - "$url" <<'PY'
import json, sys, urllib.error, urllib.parse, urllib.request
url = urllib.parse.urlsplit(sys.argv[1])
token = urllib.parse.parse_qs(url.query)["token"][0]
api = f"{url.scheme}://{url.netloc}/api/messages"
with urllib.request.urlopen(urllib.request.Request(api, headers={"X-Kal-Token": token})) as r:
    for m in json.load(r):
        print(f"-- GET /api/messages: #{m['id']} mailbox {m['mailbox']} "
              f"{m['number'] or 'withheld'} {m['durationMs'] / 1000:.1f} s {m['state']}")
try:
    urllib.request.urlopen(api)
except urllib.error.HTTPError as e:
    print(f"-- without the token: {e.code} {e.reason}")
PY
    answer_page_picture "$url"
    if [ -n "${KAL_DEMO_OPEN_PAGE:-}" ]; then
        echo "-- open $url in a browser on this machine; press Enter to go on"
        read -r _ </dev/tty || true
    fi
}

# A picture of the page as a phone shows it, when Chromium is installed
# (bash tools/install-deps.sh browser): headless, outside umockdev's testbed
# and the private bus, looking up no host names.
answer_page_picture() {
    [ -x /usr/bin/chromium ] || return 0
    local picture
    picture=$(cd "$KAL_ROOT/.." && pwd)/demo-page.png
    if env -u LD_PRELOAD -u UMOCKDEV_DIR -u DBUS_SESSION_BUS_ADDRESS -u DBUS_SYSTEM_BUS_ADDRESS \
        timeout 30 /usr/bin/chromium --headless=new --no-sandbox --disable-gpu \
        --disable-dev-shm-usage --no-first-run --disable-background-networking \
        --disable-component-update --disable-sync --disable-extensions \
        --host-resolver-rules="MAP * ~NOTFOUND , EXCLUDE 127.0.0.1" \
        --user-data-dir="$TMPDIR/demo-chromium" --window-size=412,915 \
        --screenshot="$picture" "$1" >/dev/null 2>&1 && [ -s "$picture" ]; then
        echo "-- the page as a phone shows it: $picture"
    else
        echo "-- (Chromium could not take a picture of the page)"
    fi
}

answer_stop() {
    kill -TERM "$answer" 2>/dev/null || true
    wait "$answer" 2>/dev/null || true
    answer=""
}
