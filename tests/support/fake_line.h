#pragma once

// Fake lines for node tests. A FakeLines object builds a device table of N
// lines whose line monitors are the test's ends of real socket pairs, and
// runs the real request queue and line event passes on the test thread: an
// event the test sends reaches the attached node exactly as in the daemon,
// and every command a node queues comes out as the bytes a line monitor
// would read. Time is a ManualClock; advance() moves it a second at a time
// and returns once every timer due by then has run, so a 30-second wait
// costs milliseconds and no test sleeps.
//
// One FakeLines at a time per process. Its destructor tears down every node
// still attached or tracked, lets every pending timer fire (releasing the
// nodes), waits for the timer thread to end and restores the system clock.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/unique_fd.h"
#include "core/device_table.h"
#include "lineio/lineisr.h"
#include "lineio/protocol.h"
#include "nodes/node.h"
#include "service/notification_center.h"
#include "test_support.h"

namespace kal::test {

// One command the daemon wrote to a line.
struct LineCommand {
    std::string bytes;  // the whole payload, command character first

    char type() const { return bytes.empty() ? '\0' : bytes[0]; }
    // P and R: the audio request record after the command character.
    lm::lm_audio_request audio() const;
    // C: the call request record.
    lm::lm_call_request call() const;
    // >, ! and V: the integer after the command character.
    int32_t value() const;
};

// One notification the daemon posted, flattened for comparison.
struct Report {
    std::string name;    // "RequestComplete", or a line event's KALNotificationName
    std::string token;   // KALToken
    std::string code;    // KALResponseCode
    std::string cause;   // KALDigitContentsKey
    int onHook = -1;     // KALHookContentsKey; -1 when absent
    std::string serial;  // the notification's object
    kal::Notification raw;
};

class FakeLines {
  public:
    explicit FakeLines(int count = 1);
    ~FakeLines();
    FakeLines(const FakeLines&) = delete;
    FakeLines& operator=(const FakeLines&) = delete;

    // "FAKE<n>": the serial of line n.
    static std::string serial(int line = 0);
    int count() const { return static_cast<int>(peers_.size()); }

    // Time. advance() steps the clock one second at a time and returns once
    // every timer due by then has run (on the timer thread).
    kal::ManualClock& clock() { return clock_; }
    void advance(int seconds);

    // The line monitor's side. Each send is followed by drain(), so the
    // event has reached the node (and clients) when it returns.
    void sendEvent(const std::string& payload, int line = 0);
    void sendDigit(char digit, int line = 0);
    void sendAudioResponse(const std::string& token, int32_t status, char stopChar = '\0',
                           int line = 0);
    // Writes a frame without serving it (drain() serves it).
    void writeFrame(const std::string& payload, int line = 0);

    // Runs line event passes on this thread while anything is ready: queued
    // requests are written to their lines and line events dispatched.
    void drain();
    // The next command written to `line` (after a drain), or nullopt.
    std::optional<LineCommand> nextCommand(int line = 0);
    // Every command written to `line` so far and not yet read.
    std::vector<LineCommand> commands(int line = 0);

    // Notifications posted since construction (or clearReports), oldest
    // first, from any thread.
    std::vector<Report> reports() const;
    // Only the "RequestComplete" ones: request outcomes and node completions.
    std::vector<Report> completions() const;
    // Waits (with a deadline, on a condition) until `count` reports arrived.
    bool waitForReports(size_t count, std::chrono::milliseconds deadline = 10s);
    void clearReports();

    // Tears `node` down at the end of the test if the test did not: nodes
    // that never found a line are not reachable from the table.
    template <class T>
    std::shared_ptr<T> track(std::shared_ptr<T> node) {
        tracked_.push_back(node);
        return node;
    }

    // The line's device record. Device-table lock not taken: for a test
    // thread while no other thread changes the table.
    qlx& record(int line = 0);
    // The node attached to the line, if any.
    std::shared_ptr<Node> nodeOn(int line = 0);

    // As the supervisor does on a child's death: node_devicelost under the
    // device-table lock.
    void loseDevice(int line = 0);
    // As a rescan does: a new table with the same lines, attached nodes
    // re-pointed, the old table freed.
    void replaceTable();

    // A file of `bytes` bytes (of a 400 Hz-ish pattern) in the private root.
    std::string audioFile(const std::string& name, size_t bytes);
    // What the daemon logged since construction, and how often `text`
    // occurs in it.
    std::string log() const;
    int countInLog(const std::string& text) const;
    const TempRoot& root() const { return root_; }

  private:
    void settle();
    bool anythingReady();

    TempRoot root_;
    kal::ManualClock clock_;
    std::vector<unique_fd> peers_;  // the line monitors' ends
    FdBounds bounds_{};
    std::vector<std::weak_ptr<Node>> tracked_;
    off_t logStart_ = 0;  // where this object's part of the log begins

    kal::NotificationCenter::ObserverId observer_{};
    mutable std::mutex mutex_;  // guards reports_ and sentinels_
    std::condition_variable cv_;
    std::vector<Report> reports_;
    uint64_t sentinels_ = 0;  // settle() markers fired on the timer thread
};

// A pointer as the log prints it ("%p"), and an int as the wire carries it.
inline std::string ptr(const void* p) {
    char buf[32];
    snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

inline std::string le32(int32_t v) {
    std::string s(4, '\0');
    memcpy(s.data(), &v, 4);
    return s;
}

}  // namespace kal::test
