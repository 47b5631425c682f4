#pragma once

// A remote caller listening to the stored voicemail by touch-tone. The
// daemon holds no message store: a client supplies the audio. The caller
// picks a stream at the main menu (1 unheard, 2 recent, 3 call log); the
// node asks the client for each message in turn, telling it what to do with
// the one just heard (2 save, 3 delete, # skip); 1 replays a message, * ends
// a message early and, at the menu played after each message, starts over
// with a new main greeting from the client. A caller who answers no menu is
// hung up on after the seventh play in a row. Every other stop character,
// a line reversal, an extension going off hook and every failure end the
// call: a hang-up and a teardown.
//
// Files: the node owns the main greeting and each message the client hands
// it; it deletes a message when the next one arrives, a greeting when a new
// one replaces it, and whatever it still holds when it is freed. The
// inter-message greeting is the client's and is never deleted.
//
// Thread-aware: events arrive on the line event thread and the client's
// nextMessage and restart on the main thread; each takes the node lock,
// which guards every field below that is neither const nor atomic.
// teardown may come with the device-table lock held (another node taking
// the line, device loss) and so never takes the node lock.

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "lineio/protocol.h"
#include "nodes/node.h"

class VMCheckNode final : public Node {
  public:
    enum State : int {
        kIdle = 0,        // created, or restarting with a new greeting
        kMainMenu = 1,    // main greeting sent
        kAwaitMsg = 2,    // stream chosen; first message asked of the client
        kPlayMsg = 3,     // a message sent (or the next one asked for)
        kMsgMenu = 4,     // inter-message menu sent (or the next message asked for)
        kRestarting = 7,  // the caller starts over; waiting for the client's new greeting
    };
    static const char* stateName(int state);

    // Flags of every play; kLongTones is added unless `special` asks for
    // short tones.
    static constexpr int kPlayFlags = 0x300;
    static constexpr int kLongTones = 0x800;
    // Stop strings: the main greeting stops on a stream choice, a message
    // and the inter-message menu on every menu key.
    static constexpr char kMainMenuStops[] = "PplbdceJafhH123";
    static constexpr char kMessageStops[] = "PplbdceJafhH123#*";
    // Seconds of silence the line monitor leaves after each menu.
    static constexpr int kMenuPause = 5;
    // A menu is replayed this many times without an answer, then the call
    // ends. Both menus share the count; a message heard to its end (or cut
    // short with *) clears it.
    static constexpr int kLoopLimit = 6;
    // The line monitor's watchdog while the client looks for a message.
    static constexpr int kDeadmanSeconds = 60;

    // What the client request beginVMCheckNodeForResource does once its
    // arguments are checked (all four present): makes the node, takes the
    // line `serial` from any node already on it, and plays the main
    // greeting. Never null. Whether the line exists and the files play is
    // the node's to find out; failing, it hangs up and tears down.
    static std::shared_ptr<VMCheckNode> beginForResource(const std::string& serial,
                                                         const std::string& token,
                                                         const std::string& initialGreeting,
                                                         const std::string& interMessageGreeting,
                                                         int special);
    // What nextVMCheckMessage and restartVMCheckNodeForResource do: hand
    // `audio` to the remote check on the line `serial`. False when the line
    // has no remote check, or it has ended: the file is then not taken, and
    // the caller disposes of it and answers no-resource. The token is not
    // compared with the node's.
    static bool nextMessageForResource(const std::string& serial, const std::string& audio);
    static bool restartForResource(const std::string& serial, const std::string& initialGreeting);

    // Makes the node and attaches it to the line `serial` (none when
    // empty), tearing down any node there.
    static std::shared_ptr<VMCheckNode> createWithSerial(const std::string& serial,
                                                         const std::string& token,
                                                         const std::string& initialGreeting,
                                                         const std::string& interMessageGreeting,
                                                         int special);

    VMCheckNode(CreateKey key, const std::string& serial, std::string token,
                std::string initialGreeting, std::string interMessageGreeting, int special);
    ~VMCheckNode() override;

    bool needLock() const override { return true; }
    // Plays the main greeting.
    void begin() override;
    // The client's next message (`path`, which the node now owns): plays
    // it. False, leaving the file alone, once the call has ended.
    bool nextMessage(const std::string& path);
    // The client's new main greeting after the caller started over: deletes
    // the old one and plays the new. False, leaving the file alone, once
    // the call has ended.
    bool restart(const std::string& initialGreeting);

    // 1: consumed, 0: passed on to clients, 2: an extension went off hook,
    // which ends the call once clients have heard of it.
    int handleEventWithBuffer(const char* buffer, int length, int qlx, const char* serial) override;
    void rehandleEventWithBuffer(const char* buffer, int length, int qlx,
                                 const char* serial) override;
    // May come with the device-table lock held; does not take the node lock.
    // Only the first call does anything.
    void teardown() override;

    const std::string& token() const { return token_; }
    int playFlags() const { return kPlayFlags | preventTalkOff_; }
    int state() const { return state_.load(); }

  private:
    using Reply = lm::lm_audio_response;
    // What handleNavigationDTMF answers for * during a message: the message
    // is over, as if it had played to its end.
    static constexpr int kMessageAborted = -1;

    void setState(State next, const char* reason);
    bool ended() const { return finished_.load() || isTornDown(); }

    // Node lock held for all below.
    void beginLocked();
    void playInterMessageMenu();
    void playCurrentMessage(const std::optional<std::string>& next);
    void obtainNextMessageWithDisposition(const char* disposition);
    int handleNavigationDTMF(char c);
    int handleAudioReply(const Reply& reply);
    int handlePlayEnded();
    // The call is over: hangs up and tears down. Only the first call does
    // anything. `cause` is the character that ended it, or 0.
    void finish(char cause);
    std::string serialText() const { return serialNumber().value_or(""); }

    const std::string token_;
    const std::string interMessageGreeting_;
    const int preventTalkOff_;

    std::string initialGreeting_;
    std::optional<std::string> currentMessage_;
    int loopcount_ = 0;
    // One of the stream filters, once the caller has chosen.
    std::string streamIdentifier_;
    // Written under the node lock; atomic so that tests and logs may read it.
    std::atomic<int> state_{kIdle};

    std::atomic<bool> finished_{false};     // finish has run, or teardown
    std::atomic<bool> tearingDown_{false};  // teardown has run
};
