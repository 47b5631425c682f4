#pragma once

// The answering machine itself: what kal-answer does on each line as the
// daemon reports rings, caller ID and the outcome of the sessions it starts.
//
// A call on a line goes through these states (one per line, changed only by
// LineCall's set_state, which logs old -> new):
//
//   Idle -ring-> Ringing -enough rings-> Greeting -nothing pressed, message-> Idle
//                   |                       |-mailbox digit-> Recording -message-> Idle
//                   |-blocked-> Idle        |-remote digit-> PinEntry -PIN-> Checking -> Idle
//                   |-rings stop-> Idle     |-fax tone-> Idle     |-9 PIN-> RecordingGreeting ->
//                   Idle
//
// Greeting and Recording are voicemail sessions of the daemon (the main
// greeting with the mailbox digits as choices and the default mailbox's
// recording; then a mailbox's greeting and recording); PinEntry is one with
// the PINs as multi-digit choices (a PIN after 9 records a new greeting for
// that mailbox instead; the third wrong PIN hangs up); Checking is the daemon's remote check, whose
// requests for the next message this class answers from the store.
//
// A greeting recorded over the phone is kept in the store's greetings
// folder and is what callers hear from then on: the mailbox's greeting, and
// for the default mailbox the main greeting too.
//
// Thread-aware, not thread-safe: everything runs on the thread of the
// client's loop.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "answer/audio.h"
#include "answer/config.h"
#include "answer/store.h"
#include "client/client.h"
#include "client/notification.h"

namespace kal::answer {

enum class CallState { Idle, Ringing, Greeting, Recording, PinEntry, Checking, RecordingGreeting };
const char* call_state_name(CallState state);

// Where kal-answer keeps and finds its files.
struct Places {
    std::string spool;   // shared with the daemon: recordings, audio handed over
    std::string sounds;  // the prompts and spoken words the build generated
};

// "5551234 JANE DOE" -> number "5551234", name "JANE DOE". A text that does
// not start with a number (withheld, "PRIVATE") has no number.
struct CallerId {
    std::string number;
    std::string name;
};
CallerId parse_caller_id(const std::string& text);

class Answerer {
  public:
    using Clock = std::chrono::steady_clock;
    // Called for each message stored, with the new count of messages waiting
    // and whether it came in quiet hours.
    using MessageHandler = std::function<void(const Message&, int waiting, bool quiet)>;

    Answerer(Config config, MessageStore& store, Places places);

    // A configuration that passed load_config (greetings already checked).
    void setConfig(Config config);
    const Config& config() const { return config_; }
    void onNewMessage(MessageHandler handler) { onMessage_ = std::move(handler); }

    // The daemon is there (again) behind `client`: subscribe and learn the
    // lines. Calls in progress on the old registration are ended. Throws
    // what the client throws.
    void attach(client::Client& client);
    // The daemon went away.
    void detach();

    void handle(const client::Notification& n);
    // Time-driven work: rings that stopped, remote checks left idle.
    void tick(Clock::time_point now);

    // The lines the daemon has now, and the state of each.
    std::vector<std::string> lines() const;
    CallState state(const std::string& serial) const;

  private:
    struct LineCall {
        std::string serial;
        CallState state = CallState::Idle;
        int64_t callId = 0;
        int rings = 0;
        Clock::time_point lastRing{};
        int64_t started = 0;  // seconds since the epoch
        CallerId caller;
        std::string token;
        std::string rawPath;  // the recording in progress
        int mailbox = 0;      // the mailbox being recorded or checked
        // Remote check.
        std::optional<MessageState> stream;
        std::vector<int64_t> walk;
        size_t at = 0;
        int64_t presented = 0;
        Clock::time_point lastRequest{};
        // PIN entry: the keys of the attempt under way, as the daemon passes
        // them on, and the wrong attempts so far.
        std::string pinKeys;
        Clock::time_point lastKey{};
        int wrongPins = 0;

        void set_state(CallState next, const char* why);
    };

    LineCall& line(const std::string& serial);
    void refreshLines();
    void dropLine(const std::string& serial);
    void beginCall(LineCall& call);
    void onRing(LineCall& call);
    void answer(LineCall& call);
    void onComplete(LineCall& call, const client::Notification& n);
    void startMailbox(LineCall& call, const MailboxConfig& box);
    void startPinEntry(LineCall& call);
    // Counts the attempt under way as wrong once the daemon has given up
    // waiting for more keys; hangs up after the third. True when it did.
    bool closePinAttempt(LineCall& call, Clock::time_point now);
    void startCheck(LineCall& call, const MailboxConfig& box);
    void startGreetingRecording(LineCall& call, const MailboxConfig& box);
    void storeGreeting(LineCall& call);
    std::string recordedGreeting(int mailbox) const;  // its path, "" when none
    void onCheckRequest(LineCall& call, const client::Notification& n);
    void restartCheck(LineCall& call, const std::string& prompt);
    void storeMessage(LineCall& call);
    void endCall(LineCall& call, CallOutcome outcome, int64_t messageId = 0);
    void deliverOutbound(const LineCall& call, const Message& m);
    void onOutboundComplete(const std::string& token, const client::Notification& n);

    std::string newToken(const LineCall& call);
    std::string newSpoolFile(const std::string& stem, const char* ext) const;
    std::string greetingFor(const std::string& path);  // cached raw, "" if none
    std::string sound(const std::string& name) const;
    // A fresh copy of raw audio for the daemon to play and delete.
    std::string handOver(const std::vector<uint8_t>& samples, const std::string& stem) const;
    std::vector<uint8_t> envelope(const Message& m) const;
    bool quietNow(const LineConfig& cfg) const;
    const LineConfig& lineConfig(const LineCall& call) const;

    Config config_;
    MessageStore& store_;
    Places places_;
    GreetingCache greetings_;
    client::Client* client_ = nullptr;
    std::map<std::string, LineCall> lines_;
    // Deliveries to the outbound number under way: token -> the audio
    // handed to the daemon, deleted when the delivery is over.
    std::map<std::string, std::string> outbound_;
    MessageHandler onMessage_;
    uint64_t tokens_ = 0;
};

}  // namespace kal::answer
