#pragma once

// Holds a line for a fax after a voicemail session heard a fax calling
// tone. It keeps the line monitor from timing the call out, hangs up when its
// own timer runs out or when a line event ends its responsibility for the
// call, and reports the end once under the voicemail session's token.
//
// Thread-aware: events arrive on the line event thread and the timer on the
// timer thread; both take the node lock.

#include <atomic>
#include <memory>
#include <string>

#include "nodes/node.h"

class FaxWaitNode final : public Node {
  public:
    // The line monitor's watchdog is set to this...
    static constexpr int kDeadmanSeconds = 35;
    // ...and the node gives up this long after it began: always before the
    // line monitor would give up on the call.
    static constexpr int kWaitSeconds = 30;
    // Cause character of both completion reports.
    static constexpr char kCompletionCause = '_';

    enum State : int {
        kCreated = 0,
        kWaiting = 1,  // the line monitor's timer is extended; our timer runs
        kEnded = 2,    // hung up and reported; teardown follows
    };
    static const char* stateName(int state);

    // Makes the node and attaches it to the line `serial` in place of the
    // node there (the voicemail session handing the line over). `token` is
    // that session's token.
    static std::shared_ptr<FaxWaitNode> createWithSerial(const std::string& serial,
                                                         const std::string& token);

    FaxWaitNode(CreateKey key, const std::string& serial, std::string token);

    bool needLock() const override { return true; }
    // Extends the line monitor's timer and starts the wait.
    void begin() override;
    // Ends the wait on a hook change, reversal, dial tone or the other
    // events that mean the fax machine is done; swallows repeated fax tones.
    int handleEventWithBuffer(const char* buffer, int length, int qlx, const char* serial) override;
    void teardown() override;

    const std::string& token() const { return token_; }
    // For tests and diagnostics; not from under the node lock.
    int state();

    // Hangs up, and reports the end of the wait when `notify`. Node lock held.
    void endFaxWaitWithNotification(bool notify);
    // The wait has run out (timer thread).
    void timerReturned();

  private:
    void setState(State next, const char* reason);

    const std::string token_;
    State state_ = kCreated;  // node lock
    // Set while the wait timer is registered. Atomic so that teardown, which
    // may run under the device-table lock (device loss), need not take the
    // node lock to read it.
    std::atomic<bool> timerset_{false};
};
