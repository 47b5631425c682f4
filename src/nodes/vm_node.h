#pragma once

// One answering-machine session on one line. It plays the outgoing message
// (the OGM), lets the caller pick a mailbox by touch-tone (one digit, or a
// string of digits), optionally records an incoming message (the ICM) into a
// file, and reports the outcome to clients once. Given a number to dial it
// first places the call, listening to the dial sound to learn whether the
// callee answered, and may then probe after each OGM whether the callee is
// still talking (vm_node_outbound.cc).
//
// Thread-aware: events arrive on the line event thread, the inactivity
// timer fires on the timer thread and begin runs on a client-request
// thread; each takes the node lock, which guards every field below that is
// not atomic or const. deviceLost and teardown may come with the
// device-table lock held (device loss, another node taking the line by
// force) and so never take the node lock: what they touch is atomic.

#include <atomic>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lineio/protocol.h"
#include "nodes/node.h"

class VMNode final : public Node {
  public:
    enum State : int {
        kIdle = 0,       // created, nothing sent yet
        kDialing = 1,    // outbound: dialing while recording the dial sound
        kSentPlay = 3,   // OGM play sent, waiting for its reply
        kProbing = 4,    // outbound: short record after the OGM, is the callee still there?
        kPausing = 5,    // OGM over; waiting for a digit or the post-OGM pause to end
        kDigitWait = 6,  // digits taken; waiting for more or the inter-digit timer
        kSentRec = 7,    // ICM record sent, waiting for its reply
        kComplete = 8,   // torn down
    };
    static const char* stateName(int state);

    // Option bits of `special`.
    enum Special : int {
        kSpecialLoopAnnouncement = 1,  // announce-only: play the OGM again when it ends
        kSpecialLeaveOffHook = 2,      // announce-only: finish with the line left off hook
        kSpecialCallBlocking = 4,      // fax tones are neither listened for nor acted on
        kSpecialAltRecordFlags = 8,    // record the ICM with kRecordFlagsAlt
        kSpecialShortLoopLimit = 16,   // play the OGM at most kShortLoopLimit times
        kSpecialProbe = 32,            // outbound: probe for the callee after each OGM
        kSpecialAltDialFlags = 64,     // outbound: record the dial sound with kDialFlagsAlt
    };

    // Play and record flag words, passed through to the line monitor.
    static constexpr int kPlayFlags = 0x184;
    static constexpr int kRecordFlags = 0x1AC;
    static constexpr int kRecordFlagsAlt = 0x11AC;
    static constexpr int kDialFlags = 0x38004;
    static constexpr int kDialFlagsAlt = 0xB8004;
    static constexpr int kProbeFlags = 0x68004;
    // Added to the dial and probe flags while the test marker exists.
    static constexpr int kTestModeFlags = 0x1000;

    // Stop strings. The OGM's is built from the choices and ends in one of
    // the first two.
    static constexpr char kPlayStops[] = "PplbdcehHJa";
    static constexpr char kPlayStopsCallBlocking[] = "PplbdhHJae";
    static constexpr char kRecordStops[] = "PplbdehHJa";
    static constexpr char kRecordStopsSilence[] = "PplbdehHJasq";
    static constexpr char kDialStops[] = "PplbehHJafsq";
    static constexpr char kDialStopsProbe[] = "PplbehHJafsqS";
    static constexpr char kProbeStops[] = "PplbehHJafq";
    // Events that, arriving bare while audio is outstanding, end it: they
    // are handed back to the node after clients have heard of them.
    static constexpr char kStopEvents[] = "PplbdcehHJa";

    static constexpr int kLoopLimit = 5;
    static constexpr int kShortLoopLimit = 2;
    static constexpr int kInterDigitSeconds = 3;
    static constexpr int kDialRecordSeconds = 45;
    static constexpr int kProbeRecordSeconds = 2;
    // Re-probes go on this long after the first OGM ends, and once more.
    static constexpr int kProbeWindowSeconds = 60;
    // At most this many digits are kept; a caller pressing on without a
    // match cannot grow them without bound.
    static constexpr size_t kMaxDigits = 1023;

    // Makes the node and, when `serial` is not empty, attaches it to that
    // line. `ogm` and `icm` are audio paths; without an ICM nothing is
    // recorded. `choices` are the mailbox choices (digits, `*`, `#`).
    // `firstCalling`, when present, is a number to call before the OGM.
    static std::shared_ptr<VMNode> createWithSerial(
        const std::string& serial, const std::string& token, std::optional<std::string> ogm,
        std::optional<std::string> icm, std::vector<std::string> choices, int maxMessageLength,
        int postOGMPause, int special, std::optional<std::string> firstCalling);

    // The node's side of a client's beginVMNodeForResource: creates the node
    // on the line and begins the session. Never null. Whether the line
    // exists, is busy or can play the files is the node's to find out; it
    // tells the client through its one completion report. The arguments
    // themselves (a serial, a token, an OGM or an ICM) are the request
    // layer's to check.
    static std::shared_ptr<VMNode> beginForResource(
        const std::string& serial, const std::string& token, std::optional<std::string> ogm,
        std::optional<std::string> icm, std::vector<std::string> choices, int maxMessageLength,
        int postOGMPause, int special, std::optional<std::string> firstCalling);

    VMNode(CreateKey key, const std::string& serial, std::string token,
           std::optional<std::string> ogm, std::optional<std::string> icm,
           std::vector<std::string> choices, int maxMessageLength, int postOGMPause, int special,
           std::optional<std::string> firstCalling);

    bool needLock() const override { return true; }
    // Dials first when there is a number to call, else plays the OGM.
    void begin() override;
    // 0: passed on (clients hear of it), 1: consumed, 2: a stop character
    // to be handed back through rehandleEventWithBuffer once clients have
    // heard of it.
    int handleEventWithBuffer(const char* buffer, int length, int qlx, const char* serial) override;
    void rehandleEventWithBuffer(const char* buffer, int length, int qlx,
                                 const char* serial) override;
    // Device-table lock held.
    void deviceLost() override;
    // May come with the device-table lock held; does not take the node lock.
    // Only the first call does anything.
    void teardown() override;

    // The inactivity timer's work. `lock`: take the node lock (a direct
    // call from event handling already holds it).
    void fireInactivityTimerWithLocking(bool lock);

    int state() const { return state_.load(); }

    bool haveOGM() const { return ogm_.has_value(); }
    bool haveICM() const { return recFile_.has_value(); }
    bool needToDial() const { return dial_.has_value(); }
    bool multiDigit() const { return multidigit_ > 0; }
    // No recording, and no choice but a lone `*`.
    bool isAnnounceOnlyLeaf() const;
    static bool shouldHangUpOn(char c) { return !isChoiceDigit(c); }
    static bool isChoiceDigit(char c) { return (c >= '0' && c <= '9') || c == '*' || c == '#'; }
    static bool shouldInitiateFaxOn(char c) { return c == 'e' || c == 'c'; }
    // The developer's dial test marker exists.
    static bool isDialTestMode();

  private:
    using Reply = lm::lm_audio_response;

    void setState(State next, const char* reason);
    // A fresh audio token into lastplayreccount_ and temptoken_.
    void takeAudioToken();
    // False (after logging) for a reply to a command that is not the one
    // outstanding; "0" is always fresh.
    bool isFresh(const Reply& reply) const;
    std::string playStopString() const;

    void beginPlayback();
    void playbackEOF();
    void processDigit(char d);
    void beginRecord();
    int handlePlaybackReply(const Reply& reply);
    int handleRecordReply(const Reply& reply);
    int handleBareStopChar(char c);
    // Arms the one inactivity timer (cancelling any other); -1 only cancels.
    void startInactivityTimer(int seconds);
    void inactivityTimerFired(int generation);

    // Outbound (vm_node_outbound.cc).
    void beginDialing();
    void initProbe();
    bool allowProbe();
    void beginProbe();
    int handleDialingRecordReply(const Reply& reply);
    int handleProbingRecordReply(const Reply& reply);

    // Endings. Each sends the session's one report unless another thread
    // has sent it already (device loss racing an event), asks for a hang-up
    // when told to, and tears down.
    void endWithCompletion(const char* code, char cause, bool onHook, bool hangUp);
    void endWithDigits(const char* code, const std::string& digits, bool onHook);
    void endWithFailure(const char* code, bool hangUp);
    void endWithCallOutcome(const char* code, const char* text);
    bool claimReport() { return !reported_.exchange(true); }
    std::string serialText() const { return serialNumber().value_or(""); }

    const std::string token_;
    const std::optional<std::string> ogm_;
    const std::optional<std::string> recFile_;
    const std::optional<std::string> dial_;
    const std::vector<std::string> choices_;
    const int maxLength_;
    const int postogmpause_;
    const int special_;
    const int multidigit_;

    std::atomic<int> state_{kIdle};
    int loopcount_ = 0;
    std::string digitsreceived_;
    int lastplayreccount_ = 0;
    std::string temptoken_;
    int detectedSignal_ = 0;
    // Probe deadline in seconds since the epoch, or one of these.
    static constexpr time_t kProbeUnset = -1;
    static constexpr time_t kProbeUsedUp = -2;
    time_t probeTimer_ = kProbeUnset;
    // Counts arming and cancelling of the inactivity timer: a timer that
    // fired while a digit was cancelling it finds itself outdated.
    int inactivityGeneration_ = 0;

    std::atomic<bool> reported_{false};  // the session's one report is sent
    std::atomic<bool> tearingDown_{false};
};
