#pragma once

// The AT command/response exchange with a modem in command state: text
// from the modem is cut into lines; each line is either the final result of
// the command in flight, an information line belonging to it (the answer to
// a `=?` query), or something the modem says on its own (RING, caller-ID
// lines), which goes to the owner.
//
// One command is in flight at a time; the rest wait in order. A command
// ends with the first final result: one of those it accepts (both OK and
// VCON where modems differ), any other (ERROR, BUSY, NO CARRIER...: refused),
// or its deadline (the modem stopped answering). An "expectation" is a
// command with no text: it waits for the final result of something already
// sent (the OK after the end of a play).
//
// Thread-aware, not thread-safe: one thread owns it. Time comes in as
// arguments; bytes go out through the writer given at construction.

#include <chrono>
#include <deque>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace v253 {

using Clock = std::chrono::steady_clock;

enum class AtResult { None, Ok, Vcon, Connect, Error, NoCarrier, Busy, NoDialtone, NoAnswer };
const char* at_result_name(AtResult r);
// The final result a line stands for, or None for any other line.
AtResult classify_result(std::string_view line);

// Cuts text into lines at CR and LF; empty lines are dropped.
class LineSplitter {
  public:
    // Takes `text`, passing each complete line to `on_line`, until on_line
    // answers false (what follows that line is no longer text: the modem
    // said CONNECT and audio comes next). Returns the bytes taken.
    size_t feed(std::string_view text, const std::function<bool(std::string_view)>& on_line);

  private:
    static constexpr size_t kMaxLine = 1024;
    std::string partial_;
};

struct AtOutcome {
    enum class Kind { Accepted, Refused, TimedOut };
    Kind kind = Kind::Accepted;
    AtResult result = AtResult::None;  // the final result (None when timed out)
    std::vector<std::string> info;     // information lines before it
    bool ok() const { return kind == Kind::Accepted; }
};

class AtExchange {
  public:
    using Done = std::function<void(const AtOutcome&)>;
    using Writer = std::function<void(std::string_view)>;

    explicit AtExchange(Writer write) : write_(std::move(write)) {}

    // Queues `command` (sent with a CR); `done` runs with its outcome.
    void queue(std::string command, std::initializer_list<AtResult> accept,
               std::chrono::milliseconds timeout, Done done);
    // Waits, before anything queued, for the final result of bytes already
    // sent.
    void expect_first(std::initializer_list<AtResult> accept, std::chrono::milliseconds timeout,
                      Done done);

    // While held, nothing queued is sent (the modem is in a data state,
    // where text would be taken as audio). Releasing sends the next one.
    void hold(bool on, Clock::time_point now);

    // Sends the next command if none is in flight. The owner calls it after
    // each turn, so that what a turn queued goes out.
    void pump(Clock::time_point now) { send_next(now); }

    // One line from the modem. Returns false when it is not part of the
    // exchange (no command waits for it, or it is an unsolicited line).
    bool on_line(std::string_view line, Clock::time_point now);
    // Ends the command in flight when its deadline has passed.
    void on_time(Clock::time_point now);
    std::optional<Clock::time_point> next_deadline() const;

  private:
    struct Step {
        std::string command;  // empty: an expectation
        std::vector<AtResult> accept;
        std::chrono::milliseconds timeout;
        Done done;
        Clock::time_point deadline;
        std::vector<std::string> info;
    };
    void send_next(Clock::time_point now);
    void finish(AtOutcome outcome, Clock::time_point now);

    Writer write_;
    bool held_ = false;
    std::optional<Step> current_;
    std::deque<Step> waiting_;
};

}  // namespace v253
