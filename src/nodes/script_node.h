#pragma once

// A touch-tone menu of client scripts on a call that is already connected.
// The node beeps, collects a code typed on the keypad and ended by `#`, asks
// the clients to run the script bound to that code ("please run action
// script", with the session token and a run number), and, for a script that
// answers with audio, waits for the client's completion and plays the file
// it returns, deleting it afterwards. Then it offers the menu again: at most
// five times, or exactly once when the client picked the code in advance.
// `*` or `#` during a script or its playback goes back to the menu; a line
// reversal or an extension picked up ends the session.
//
// Thread-aware: events arrive on the line event thread, the client's
// completion on a client-service thread and the timers on the timer thread;
// each takes the node lock, which guards every field below that is neither
// const nor atomic. teardown may come with the device-table lock held
// (device loss, another node taking the line by force) and so never takes
// the node lock: what it touches is atomic.

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lineio/protocol.h"
#include "nodes/node.h"

// Deletes a temporary audio file that a client handed over. Answers 0, or
// the errno of the failure; the caller logs either as it sees fit.
int remove_temporary_audio(const std::string& path);

class ScriptNode final : public Node {
  public:
    enum State : int {
        kCreated = 0,
        kPicking = 1,   // beeped; collecting the code
        kAwaiting = 2,  // a script runs; waiting for the client's completion
        kPlaying = 3,   // playing the audio the script returned
        kEnded = 4,     // torn down
    };
    static const char* stateName(int state);

    // One menu entry. `returnsAudio`: the client answers the script with a
    // completion (perhaps with audio) that the node waits for; otherwise
    // the menu is offered again at once.
    struct Choice {
        std::string code;
        bool returnsAudio = false;
    };

    // How a session ended, as reported to clients. `cause` 0: none.
    struct SessionEnd {
        std::string code;
        char cause = '\0';
        bool onHook = true;
    };

    static constexpr int kMaxScripts = 5;
    static constexpr int kPickSeconds = 15;         // from the beep to the final `#`
    static constexpr int kPickDeadmanSeconds = 25;  // the line monitor's watchdog meanwhile
    static constexpr int kRunSeconds = 120;         // the client's time to run a script
    static constexpr int kRunDeadmanSeconds = 130;
    static constexpr int kBeepType = 1;
    static constexpr int kPlayFlags = 0;
    static constexpr char kPlayStops[] = "PplbdceJafhH*#";
    // A longer code keeps its first this many digits.
    static constexpr size_t kMaxDigits = 1023;

    // What the client request to start a script session does once its
    // arguments are checked (a serial, a token, and the two lists not both
    // empty): the menu is `choices` (scripts that answer nothing) followed
    // by `responseChoices` (scripts that answer with a completion). Makes
    // the node, attaches it to the line `serial` and begins. Never null:
    // whether the line exists or is free is the node's to find out.
    static std::shared_ptr<ScriptNode> startForResource(
        const std::string& serial, const std::string& token,
        const std::vector<std::string>& choices, const std::vector<std::string>& responseChoices,
        const std::optional<std::string>& prepicking);
    // What the client request reporting a script's completion does: hands
    // it to the script node on the line `serial`. False when the line has
    // no script node; the caller then disposes of `responseAudio` itself
    // and answers no-resource.
    static bool scriptCompletedForResource(const std::string& serial, const std::string& token,
                                           int sequenceNumber,
                                           const std::optional<std::string>& responseAudio);

    // Makes the node and attaches it to the line `serial` (none when empty).
    static std::shared_ptr<ScriptNode> createWithSerial(const std::string& serial,
                                                        const std::string& token,
                                                        std::vector<Choice> choices,
                                                        std::optional<std::string> prepick);

    ScriptNode(CreateKey key, const std::string& serial, std::string token,
               std::vector<Choice> choices, std::optional<std::string> prepick);

    // The run number of the next script of any session; the first is 0.
    static int nextRunNumber();

    bool needLock() const override { return true; }
    // Offers the menu (beep and pick window), or runs the pre-picked code.
    void begin() override;
    // 0: passed on, 1: consumed, 2: an extension was picked up; it ends the
    // session through rehandleEventWithBuffer once clients have heard of it.
    int handleEventWithBuffer(const char* buffer, int length, int qlx, const char* serial) override;
    void rehandleEventWithBuffer(const char* buffer, int length, int qlx,
                                 const char* serial) override;
    // The client's completion of run `sequenceNumber`; `responseAudio` is a
    // temporary file that this node now owns and deletes.
    void scriptCompleted(const std::string& token, int sequenceNumber,
                         const std::optional<std::string>& responseAudio);
    // May come with the device-table lock held; does not take the node
    // lock. Only the first end of the node does anything.
    void teardown() override;

    const std::string& token() const { return token_; }
    int state() const { return state_.load(); }
    // How the session ended, when it ended with a report.
    std::optional<SessionEnd> sessionEnd();

  private:
    enum class Moment { kRefused, kAfterPlayback, kUponAbort };

    void setState(State next, const char* reason);
    bool finished() const { return ended_.load() || isTornDown(); }
    std::string serialText() const { return serialNumber().value_or(""); }

    // Node lock held for all below.
    void beginLocked();
    void completedCode();
    void abortScript();
    int handlePlaybackReply(const lm::lm_audio_response& reply);
    void removeTemporary(const std::string& path, Moment moment);
    // Timers; each takes the node lock. `round` is the loopcount_ that
    // armed the timer: a later begin outdates it.
    void timeoutForPicking(int round);
    void restart(int round);
    void timeoutForRunNumber(int run);

    // Endings. The first end of the node reports as it says (unless a
    // forced teardown came first), hangs up when asked and tears down.
    void endSession(char cause, bool onHook, bool hangUp);
    void endQuietly(bool hangUp, const char* reason);
    void endWithFailure(const char* code, const char* reason);
    bool claimEnd() { return !ended_.exchange(true); }
    void finishTeardown(const char* reason);

    const std::string token_;
    const std::vector<Choice> choices_;
    const std::optional<std::string> prepick_;

    std::atomic<int> state_{kCreated};
    std::string digitsReceived_;
    int loopcount_ = 0;  // how many times begin has run
    std::optional<int> currentRun_;
    std::optional<std::string> nowPlaying_;  // the returned audio being played
    std::optional<SessionEnd> sessionEnd_;
    std::atomic<bool> ended_{false};
};
