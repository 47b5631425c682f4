#include "answer/answerer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>

#include "service/vocabulary.h"

namespace fs = std::filesystem;

namespace kal::answer {

namespace {

using client::Notification;

// A remote check the daemon stopped asking about (the caller hung up in a
// way no event tells, or walked away) is closed after this long.
constexpr auto kCheckIdle = std::chrono::seconds(120);
// The daemon takes a PIN as finished (and wrong) when no key follows for
// this long; the third wrong PIN ends the call. A key that comes a little
// sooner after the last one than that still starts a new attempt: the two
// notifications may reach us further apart than the daemon saw the keys.
constexpr auto kPinKeyGap = std::chrono::seconds(3);
constexpr auto kPinKeyGapSkew = std::chrono::milliseconds(500);
constexpr int kWrongPinsAllowed = 3;

// Pressed before a PIN: record a new greeting for that mailbox.
constexpr const char kRecordGreetingKey[] = "9";

// Rings come every six seconds or so; none for this long means the caller
// gave up before we answered.
constexpr auto kRingsStopped = std::chrono::seconds(8);

void note(const std::string& text) {
    std::cerr << "kal-answer: " << text << std::endl;
}

const Value& info(const Notification& n, const char* key) {
    static const Value none;
    auto it = n.userInfo.find(key);
    return it == n.userInfo.end() ? none : it->second;
}

std::string serial_of(const Notification& n) {
    if (!n.object.str().empty())
        return n.object.str();
    return info(n, kal_QLXSerialNumberKey).str();
}

int64_t now_seconds() {
    return static_cast<int64_t>(::time(nullptr));
}

int minute_of_day_now() {
    const time_t t = ::time(nullptr);
    struct tm tm {};
    localtime_r(&t, &tm);
    return tm.tm_hour * 60 + tm.tm_min;
}

bool ok(const std::string& code) {
    return code == kal_ResponseCode_OK;
}

}  // namespace

const char* call_state_name(CallState state) {
    switch (state) {
        case CallState::Idle:
            return "Idle";
        case CallState::Ringing:
            return "Ringing";
        case CallState::Greeting:
            return "Greeting";
        case CallState::Recording:
            return "Recording";
        case CallState::PinEntry:
            return "PinEntry";
        case CallState::Checking:
            return "Checking";
        case CallState::RecordingGreeting:
            return "RecordingGreeting";
    }
    return "?";
}

CallerId parse_caller_id(const std::string& text) {
    CallerId id;
    size_t i = text.find_first_not_of(' ');
    if (i == std::string::npos)
        return id;
    size_t end = i;
    while (end < text.size() && (std::isdigit(static_cast<unsigned char>(text[end])) ||
                                 text[end] == '+' || text[end] == '-'))
        ++end;
    const bool number = end > i && (end == text.size() || text[end] == ' ');
    if (number)
        id.number = text.substr(i, end - i);
    const size_t rest = text.find_first_not_of(' ', number ? end : i);
    if (rest != std::string::npos)
        id.name = text.substr(rest, text.find_last_not_of(' ') - rest + 1);
    return id;
}

void Answerer::LineCall::set_state(CallState next, const char* why) {
    if (next == state)
        return;
    note(serial + ": " + call_state_name(state) + " -> " + call_state_name(next) + " (" + why +
         ")");
    state = next;
}

Answerer::Answerer(Config config, MessageStore& store, Places places)
    : config_(std::move(config)),
      store_(store),
      places_(std::move(places)),
      greetings_(store.dir() + "/greetings") {
    std::error_code ec;
    fs::create_directories(places_.spool, ec);
    // The daemon's user writes recordings here and deletes the audio it was
    // handed; nobody may list what is in it.
    ::chmod(places_.spool.c_str(), 0733);
    // Whatever a previous run left: recordings nobody will finish, audio
    // the daemon no longer needs.
    for (fs::directory_iterator it(places_.spool, ec), end; !ec && it != end; it.increment(ec))
        fs::remove(it->path(), ec);
}

void Answerer::setConfig(Config config) {
    config_ = std::move(config);
}

const LineConfig& Answerer::lineConfig(const LineCall& call) const {
    return config_.line(call.serial);
}

void Answerer::attach(client::Client& client) {
    client_ = &client;
    for (const char* name :
         {kal_RingDetect, kal_CallerID, kal_RequestComplete, kal_ResourceAvailabilityChanged,
          kal_PleaseProvideNextMessageForVMCheck, kal_PleaseRestartVMCheck, kal_BusyTone,
          kal_LineReversal, kal_Dialtone, kal_DigitDialed})
        client.subscribe(name);
    for (auto& [serial, call] : lines_)
        if (call.state != CallState::Idle)
            endCall(call, CallOutcome::Interrupted);
    refreshLines();
}

void Answerer::detach() {
    client_ = nullptr;
}

std::vector<std::string> Answerer::lines() const {
    std::vector<std::string> out;
    for (const auto& [serial, call] : lines_)
        out.push_back(serial);
    return out;
}

CallState Answerer::state(const std::string& serial) const {
    auto it = lines_.find(serial);
    return it == lines_.end() ? CallState::Idle : it->second.state;
}

Answerer::LineCall& Answerer::line(const std::string& serial) {
    auto [it, fresh] = lines_.try_emplace(serial);
    if (fresh)
        it->second.serial = serial;
    return it->second;
}

void Answerer::refreshLines() {
    if (!client_)
        return;
    const auto now = client_->resources();
    std::vector<std::string> gone;
    for (const auto& [serial, call] : lines_)
        if (std::find(now.begin(), now.end(), serial) == now.end())
            gone.push_back(serial);
    for (const auto& serial : gone)
        dropLine(serial);
    for (const auto& serial : now)
        if (!lines_.count(serial)) {
            line(serial);
            note(serial + ": answering this line" +
                 (config_.line(serial).answer ? "" : " (no: answer = no)"));
        }
}

void Answerer::dropLine(const std::string& serial) {
    auto it = lines_.find(serial);
    if (it == lines_.end())
        return;
    note(serial + ": the line is gone");
    if (it->second.state != CallState::Idle)
        endCall(it->second, CallOutcome::Interrupted);
    lines_.erase(it);
}

void Answerer::handle(const Notification& n) {
    if (!client_)
        return;
    if (n.name == kal_ResourceAvailabilityChanged) {
        // The daemon may tell of a vanished line before its list of lines
        // no longer has it: the notification decides for that line.
        const Value& available = info(n, kal_ResourceAvailabilityKey);
        if (available.is<int32_t>() && available.as<int32_t>() == 0)
            dropLine(serial_of(n));
        else
            refreshLines();
        return;
    }
    const std::string token = info(n, kal_Token).str();
    if (n.name == kal_RequestComplete && outbound_.count(token)) {
        onOutboundComplete(token, n);
        return;
    }
    if (n.name == kal_RequestComplete || n.name == kal_PleaseProvideNextMessageForVMCheck ||
        n.name == kal_PleaseRestartVMCheck) {
        for (auto& [serial, call] : lines_) {
            if (call.token.empty() || call.token != token)
                continue;
            if (n.name == kal_RequestComplete)
                onComplete(call, n);
            else
                onCheckRequest(call, n);
            return;
        }
        return;
    }
    const std::string serial = serial_of(n);
    if (!lines_.count(serial))
        return;
    LineCall& call = line(serial);
    if (n.name == kal_RingDetect) {
        onRing(call);
    } else if (n.name == kal_CallerID) {
        call.caller = parse_caller_id(info(n, kal_CallerIDContentsKey).str());
        if (call.state == CallState::Idle && lineConfig(call).answer)
            beginCall(call);  // caller ID before the first ring
        if (call.callId)
            store_.update_call(call.callId, call.caller.number, call.caller.name);
    } else if (n.name == kal_DigitDialed && call.state == CallState::PinEntry) {
        // The daemon's PIN session passes every key on as it collects them.
        const auto now = Clock::now();
        if (!closePinAttempt(call, now + kPinKeyGapSkew)) {
            call.pinKeys += info(n, kal_DigitContentsKey).str();
            call.lastKey = now;
        }
    } else if (call.state == CallState::Checking &&
               (n.name == kal_BusyTone || n.name == kal_LineReversal || n.name == kal_Dialtone)) {
        // The remote check ends without a report of its own: the exchange
        // tells us the caller has gone.
        endCall(call, CallOutcome::RemoteCheck);
    }
}

void Answerer::beginCall(LineCall& call) {
    call.started = now_seconds();
    call.rings = 0;
    call.lastRing = Clock::now();
    call.callId = store_.begin_call(call.serial, call.started);
    call.set_state(CallState::Ringing, "a call comes in");
}

void Answerer::onRing(LineCall& call) {
    const LineConfig& cfg = lineConfig(call);
    if (!cfg.answer)
        return;
    if (call.state == CallState::Idle)
        beginCall(call);
    if (call.state != CallState::Ringing)
        return;
    call.lastRing = Clock::now();
    ++call.rings;
    int needed = cfg.rings;
    if (cfg.tollSaverRings > 0 && store_.waiting() > 0)
        needed = cfg.tollSaverRings;
    if (quietNow(cfg))
        needed = std::min(needed, cfg.quietRings);
    if (call.rings >= needed)
        answer(call);
}

bool Answerer::quietNow(const LineConfig& cfg) const {
    const auto& q = cfg.quietHours;
    return q && q->contains(minute_of_day_now());
}

std::string Answerer::newToken(const LineCall& call) {
    return "kal-answer-" + call.serial + "-" + std::to_string(++tokens_);
}

std::string Answerer::newSpoolFile(const std::string& stem, const char* ext) const {
    std::string path = places_.spool + "/" + stem + ".XXXXXX" + ext;
    const int fd = ::mkstemps(path.data(), static_cast<int>(std::strlen(ext)));
    if (fd < 0)
        throw AudioError("cannot make a file in " + places_.spool + ": " + std::strerror(errno));
    ::close(fd);
    // The daemon creates the recording itself.
    ::unlink(path.c_str());
    return path;
}

std::string Answerer::sound(const std::string& name) const {
    return places_.sounds + "/" + name + ".raw";
}

std::string Answerer::greetingFor(const std::string& path) {
    if (path.empty())
        return "";
    try {
        return greetings_.get(path);
    } catch (const AudioError& e) {
        // Checked when the configuration was read; changed since.
        note(std::string("cannot use a greeting: ") + e.what());
        return "";
    }
}

std::string Answerer::handOver(const std::vector<uint8_t>& samples, const std::string& stem) const {
    const std::string path = newSpoolFile(stem, ".raw");
    write_raw(path, samples);
    return path;
}

void Answerer::answer(LineCall& call) {
    const LineConfig& cfg = lineConfig(call);
    call.token = newToken(call);
    if (cfg.blocks(call.caller.number)) {
        note(call.serial + ": " +
             (call.caller.number.empty() ? std::string("withheld number") : call.caller.number) +
             " is blocked: hanging up");
        client_->hangUpResource(call.serial, call.token);
        endCall(call, CallOutcome::Blocked);
        return;
    }
    std::vector<std::string> choices;
    for (const auto& [number, box] : config_.mailboxes)
        if (number != cfg.defaultMailbox && !box.digit.empty())
            choices.push_back(box.digit);
    const bool remote = !cfg.remoteDigit.empty() &&
                        std::any_of(config_.mailboxes.begin(), config_.mailboxes.end(),
                                    [](const auto& m) { return !m.second.pin.empty(); });
    if (remote)
        choices.push_back(cfg.remoteDigit);

    const MailboxConfig* box = config_.mailbox(cfg.defaultMailbox);
    std::string ogm = greetingFor(recordedGreeting(cfg.defaultMailbox));
    if (ogm.empty())
        ogm = greetingFor(cfg.greeting);
    if (ogm.empty() && box)
        ogm = greetingFor(box->greeting());
    if (ogm.empty())
        ogm = sound("greeting");
    call.mailbox = cfg.defaultMailbox;
    call.rawPath = newSpoolFile("message-" + call.serial, ".raw");
    store_.set_call_outcome(call.callId, CallOutcome::Answered);
    const std::string code =
        client_->beginVMNodeForResource(call.serial, call.token, ogm, call.rawPath, choices,
                                        cfg.maxMessageLength, 0, cfg.fax ? 0 : 4, "");
    if (!ok(code)) {
        note(call.serial + ": the daemon refused to answer: " + code);
        endCall(call, CallOutcome::Unanswered);
        return;
    }
    call.set_state(CallState::Greeting,
                   ("answered after " + std::to_string(call.rings) + " rings").c_str());
}

void Answerer::startMailbox(LineCall& call, const MailboxConfig& box) {
    const LineConfig& cfg = lineConfig(call);
    call.token = newToken(call);
    call.mailbox = box.number;
    call.rawPath = newSpoolFile("message-" + call.serial, ".raw");
    std::string ogm = greetingFor(recordedGreeting(box.number));
    if (ogm.empty())
        ogm = greetingFor(box.greeting());
    const std::string code =
        client_->beginVMNodeForResource(call.serial, call.token, ogm, call.rawPath, {},
                                        cfg.maxMessageLength, 0, cfg.fax ? 0 : 4, "");
    if (!ok(code)) {
        note(call.serial + ": cannot start mailbox " + std::to_string(box.number) + ": " + code);
        endCall(call, CallOutcome::NoMessage);
        return;
    }
    call.set_state(CallState::Recording, ("mailbox " + std::to_string(box.number)).c_str());
}

void Answerer::startPinEntry(LineCall& call) {
    std::vector<std::string> pins;
    for (const auto& [number, box] : config_.mailboxes)
        if (!box.pin.empty()) {
            pins.push_back(box.pin);
            pins.push_back(kRecordGreetingKey + box.pin);
        }
    call.token = newToken(call);
    call.rawPath.clear();
    // Multi-digit choices: the daemon collects keys until a whole PIN
    // matches; a wrong one replays the prompt (five plays at most), and
    // closePinAttempt() hangs up after the third.
    const std::string code = client_->beginVMNodeForResource(
        call.serial, call.token, sound("enter-pin"), "", pins, 0, 5, 0, "");
    if (!ok(code)) {
        endCall(call, CallOutcome::NoMessage);
        return;
    }
    call.set_state(CallState::PinEntry, "the remote check digit");
}

bool Answerer::closePinAttempt(LineCall& call, Clock::time_point now) {
    if (call.pinKeys.empty() || now - call.lastKey < kPinKeyGap)
        return false;
    call.pinKeys.clear();
    ++call.wrongPins;
    note(call.serial + ": wrong PIN (" + std::to_string(call.wrongPins) + " of " +
         std::to_string(kWrongPinsAllowed) + ")");
    if (call.wrongPins < kWrongPinsAllowed)
        return false;
    endCall(call, CallOutcome::NoMessage);
    return true;
}

void Answerer::onComplete(LineCall& call, const Notification& n) {
    const std::string code = info(n, kal_ResponseCode).str();
    const std::string cause = info(n, kal_DigitContentsKey).str();
    const Value& hook = info(n, kal_HookContentsKey);
    const bool onHook = hook.is<int32_t>() && hook.as<int32_t>() != 0;
    note(call.serial + ": " + call_state_name(call.state) + " session ended: " + code +
         (cause.empty() ? "" : " (" + cause + ")"));
    switch (call.state) {
        case CallState::Greeting:
        case CallState::Recording:
            if (code == kal_ResponseCode_OK_AudioReceived) {
                storeMessage(call);
            } else if (code == kal_ResponseCode_OK_NoAudio && !onHook && !cause.empty() &&
                       call.state == CallState::Greeting) {
                ::unlink(call.rawPath.c_str());
                if (cause == lineConfig(call).remoteDigit) {
                    startPinEntry(call);
                } else if (const MailboxConfig* box = config_.mailbox_for_digit(cause)) {
                    startMailbox(call, *box);
                } else {
                    endCall(call, CallOutcome::NoMessage);
                }
            } else if (code == kal_ResponseCode_OK_FaxWait) {
                endCall(call, CallOutcome::Fax);
            } else {
                endCall(call, CallOutcome::NoMessage);
            }
            break;
        case CallState::PinEntry:
            if (code == kal_ResponseCode_OK_NoAudio && !onHook) {
                if (const MailboxConfig* box = config_.mailbox_for_pin(cause)) {
                    startCheck(call, *box);
                    break;
                }
                if (cause.starts_with(kRecordGreetingKey))
                    if (const MailboxConfig* box = config_.mailbox_for_pin(cause.substr(1))) {
                        startGreetingRecording(call, *box);
                        break;
                    }
            }
            note(call.serial + ": no PIN entered");
            endCall(call, CallOutcome::NoMessage);
            break;
        case CallState::RecordingGreeting:
            if (code == kal_ResponseCode_OK_AudioReceived)
                storeGreeting(call);
            else
                endCall(call, CallOutcome::RemoteCheck);
            break;
        case CallState::Checking:
            // Only a failure completes a remote check.
            endCall(call, CallOutcome::RemoteCheck);
            break;
        case CallState::Idle:
        case CallState::Ringing:
            break;
    }
}

void Answerer::storeMessage(LineCall& call) {
    const LineConfig& cfg = lineConfig(call);
    std::vector<uint8_t> samples;
    try {
        samples = read_raw(call.rawPath);
    } catch (const AudioError& e) {
        note(e.what());
    }
    ::unlink(call.rawPath.c_str());
    if (cfg.trimSilence)
        samples = trim_trailing_silence(samples);
    const int64_t durationMs = static_cast<int64_t>(samples.size()) * 1000 / kLineRate;
    if (samples.empty() || durationMs < cfg.minMessageLength * 1000) {
        note(call.serial + ": a message of " + std::to_string(durationMs) +
             " ms is shorter than min_message_length: dropped");
        endCall(call, CallOutcome::NoMessage);
        return;
    }
    Message m;
    m.mailbox = call.mailbox;
    m.line = call.serial;
    m.callerNumber = call.caller.number;
    m.callerName = call.caller.name;
    m.received = call.started;
    m.durationMs = durationMs;
    const std::string incoming = store_.messages_dir() + "/.incoming-" + call.token + ".wav";
    try {
        write_wav(incoming, samples);
        const Message added = store_.add_message(m, incoming);
        note(call.serial + ": message " + std::to_string(added.id) + " in mailbox " +
             std::to_string(added.mailbox) + ", " + std::to_string(durationMs) + " ms");
        endCall(call, CallOutcome::Message, added.id);
        if (onMessage_)
            onMessage_(added, store_.waiting(), quietNow(cfg));
        if (cfg.outboundDelivery)
            deliverOutbound(call, added);
    } catch (const std::exception& e) {
        ::unlink(incoming.c_str());
        note(std::string("cannot keep a message: ") + e.what());
        endCall(call, CallOutcome::NoMessage);
    }
}

void Answerer::deliverOutbound(const LineCall& call, const Message& m) {
    const LineConfig& cfg = lineConfig(call);
    try {
        std::vector<uint8_t> audio = envelope(m);
        const auto body = decode_for_line(store_.path_of(m));
        audio.insert(audio.end(), body.begin(), body.end());
        const std::string ogm = handOver(audio, "outbound");
        // Option bit 32: after the message, listen whether the callee is
        // still there, and play it again while they are.
        const std::string token = "kal-answer-outbound-" + std::to_string(m.id);
        const std::string code = client_->beginVMNodeForResource(call.serial, token, ogm, "", {}, 0,
                                                                 0, 32, cfg.outboundNumber);
        note(call.serial + ": delivering message " + std::to_string(m.id) + " to " +
             cfg.outboundNumber + ": " + code);
        if (ok(code))
            outbound_[token] = ogm;
        else
            ::unlink(ogm.c_str());
    } catch (const std::exception& e) {
        note(std::string("cannot deliver a message: ") + e.what());
    }
}

void Answerer::onOutboundComplete(const std::string& token, const Notification& n) {
    const std::string code = info(n, kal_ResponseCode).str();
    note(serial_of(n) + ": delivery " + token + ": " + code);
    // The callee answered: the message plays now, and another report
    // follows when it is over. Any other report is the last one. The daemon
    // never deletes a greeting it was given: we do.
    if (code == kal_ResponseCode_Call_OK)
        return;
    ::unlink(outbound_[token].c_str());
    outbound_.erase(token);
}

void Answerer::startCheck(LineCall& call, const MailboxConfig& box) {
    call.token = newToken(call);
    call.mailbox = box.number;
    call.stream.reset();
    call.walk.clear();
    call.presented = 0;
    call.lastRequest = Clock::now();
    try {
        const std::string menu = handOver(read_raw(sound("check-menu")), "check-menu");
        const std::string code = client_->beginVMCheckNodeForResource(call.serial, call.token, menu,
                                                                      sound("message-menu"), 0);
        if (!ok(code)) {
            ::unlink(menu.c_str());
            endCall(call, CallOutcome::NoMessage);
            return;
        }
    } catch (const std::exception& e) {
        note(std::string("cannot start the remote check: ") + e.what());
        endCall(call, CallOutcome::NoMessage);
        return;
    }
    call.set_state(CallState::Checking, ("PIN of mailbox " + std::to_string(box.number)).c_str());
}

std::string Answerer::recordedGreeting(int mailbox) const {
    const std::string path =
        store_.dir() + "/greetings/recorded-mailbox-" + std::to_string(mailbox) + ".wav";
    std::error_code ec;
    return fs::is_regular_file(path, ec) ? path : "";
}

void Answerer::startGreetingRecording(LineCall& call, const MailboxConfig& box) {
    call.token = newToken(call);
    call.mailbox = box.number;
    call.rawPath = newSpoolFile("greeting-" + call.serial, ".raw");
    const std::string code = client_->beginVMNodeForResource(
        call.serial, call.token, sound("record-greeting"), call.rawPath, {}, 60, 0, 4, "");
    if (!ok(code)) {
        endCall(call, CallOutcome::RemoteCheck);
        return;
    }
    call.set_state(CallState::RecordingGreeting,
                   ("a new greeting for mailbox " + std::to_string(box.number)).c_str());
}

void Answerer::storeGreeting(LineCall& call) {
    try {
        const auto samples = trim_trailing_silence(read_raw(call.rawPath));
        if (samples.size() < kLineRate / 2)
            throw AudioError("the recorded greeting is shorter than half a second");
        // Written beside its final name and renamed: a greeting is never
        // half there.
        const std::string path =
            store_.dir() + "/greetings/recorded-mailbox-" + std::to_string(call.mailbox) + ".wav";
        write_wav(path, samples);
        note(call.serial + ": a new greeting for mailbox " + std::to_string(call.mailbox) + ", " +
             std::to_string(samples.size() * 1000 / kLineRate) + " ms");
    } catch (const std::exception& e) {
        note(std::string("cannot keep the greeting: ") + e.what());
    }
    endCall(call, CallOutcome::RemoteCheck);
}

void Answerer::restartCheck(LineCall& call, const std::string& prompt) {
    std::vector<uint8_t> audio;
    try {
        if (!prompt.empty())
            audio = read_raw(sound(prompt));
        const auto menu = read_raw(sound("check-menu"));
        audio.insert(audio.end(), menu.begin(), menu.end());
        client_->restartVMCheckNodeForResource(call.serial, call.token,
                                               handOver(audio, "check-menu"));
    } catch (const std::exception& e) {
        note(std::string("cannot restart the remote check: ") + e.what());
    }
    call.stream.reset();
    call.presented = 0;
}

std::vector<uint8_t> Answerer::envelope(const Message& m) const {
    // "Message from 5 5 5 1 2 3 4, received at 1 4 3 5", or "... from a
    // withheld number ...", from the words the build spoke.
    std::vector<uint8_t> out;
    const auto say = [&](const std::string& word) {
        try {
            const auto clip = read_raw(sound("word-" + word));
            out.insert(out.end(), clip.begin(), clip.end());
        } catch (const AudioError&) {
            // A missing word leaves a gap, not a failed check.
        }
    };
    const auto digits = [&](const std::string& text) {
        for (char c : text)
            if (std::isdigit(static_cast<unsigned char>(c)))
                say(std::string(1, c));
    };
    say("from");
    if (m.callerNumber.empty())
        say("withheld");
    else
        digits(m.callerNumber);
    say("received");
    const time_t t = static_cast<time_t>(m.received);
    struct tm tm {};
    localtime_r(&t, &tm);
    char hhmm[8];
    snprintf(hhmm, sizeof hhmm, "%02d%02d", tm.tm_hour, tm.tm_min);
    digits(hhmm);
    return out;
}

void Answerer::onCheckRequest(LineCall& call, const Notification& n) {
    call.lastRequest = Clock::now();
    if (n.name == kal_PleaseRestartVMCheck) {
        restartCheck(call, "");
        return;
    }
    // What the caller said of the message just heard.
    const std::string disposition = info(n, kal_VMCheckPresentMessageDisposition).str();
    if (call.presented) {
        if (disposition == kal_VMCheck_Disposition_Delete)
            store_.remove(call.presented);
        else if (disposition == kal_VMCheck_Disposition_Save)
            store_.set_state(call.presented, MessageState::Saved);
        else if (auto m = store_.message(call.presented); m && m->state == MessageState::New)
            store_.set_state(call.presented, MessageState::Heard);
        call.presented = 0;
    }
    const std::string filter = info(n, kal_VMCheck_Filter).str();
    std::optional<MessageState> stream;
    if (filter == kal_VMCheck_Filter_Unheard)
        stream = MessageState::New;
    else if (filter == kal_VMCheck_Filter_Recent)
        stream = MessageState::Saved;
    if (stream != call.stream || call.walk.empty()) {
        call.stream = stream;
        call.walk.clear();
        call.at = 0;
        // The call log has no recordings to play: only messages are walked.
        for (const auto& m : store_.messages(call.mailbox))
            if (stream && (m.state == MessageState::New) == (*stream == MessageState::New))
                call.walk.push_back(m.id);
    }
    while (call.at < call.walk.size()) {
        const auto m = store_.message(call.walk[call.at++]);
        if (!m || m->state == MessageState::Deleted)
            continue;
        try {
            std::vector<uint8_t> audio = envelope(*m);
            const auto body = decode_for_line(store_.path_of(*m));
            audio.insert(audio.end(), body.begin(), body.end());
            call.presented = m->id;
            client_->nextVMCheckMessage(call.serial, call.token,
                                        handOver(audio, "message-" + std::to_string(m->id)));
            return;
        } catch (const std::exception& e) {
            note(std::string("cannot play a message: ") + e.what());
        }
    }
    call.walk.clear();
    restartCheck(call, "no-more");
}

void Answerer::endCall(LineCall& call, CallOutcome outcome, int64_t messageId) {
    const bool answered = call.state != CallState::Ringing && call.state != CallState::Idle;
    if (call.callId)
        store_.set_call_outcome(call.callId, outcome, messageId);
    if (!call.rawPath.empty())
        ::unlink(call.rawPath.c_str());
    // The daemon leaves the line off hook after a message; a fax call
    // belongs to the fax machine now.
    if (answered && client_ && outcome != CallOutcome::Fax && outcome != CallOutcome::Interrupted) {
        try {
            client_->hangUpResource(call.serial, newToken(call));
        } catch (const std::exception& e) {
            note(std::string("cannot hang up: ") + e.what());
        }
    }
    call.set_state(CallState::Idle, call_outcome_name(outcome));
    const std::string serial = call.serial;
    call = LineCall{};
    call.serial = serial;
}

void Answerer::tick(Clock::time_point now) {
    for (auto& [serial, call] : lines_) {
        if (call.state == CallState::Ringing && now - call.lastRing > kRingsStopped)
            endCall(call, CallOutcome::Unanswered);
        else if (call.state == CallState::Checking && now - call.lastRequest > kCheckIdle)
            endCall(call, CallOutcome::RemoteCheck);
        else if (call.state == CallState::PinEntry)
            closePinAttempt(call, now);
    }
}

}  // namespace kal::answer
