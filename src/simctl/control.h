#pragma once

// The shape of a simulator's control conversation: one text command per
// line in, one reply out. A reply's first line is "ok ..." or "error ...".
// Listings answer exactly "ok <n> commands|messages|lines" and then n lines;
// no other reply has that form, so a reader knows from the first line how
// many follow (reply_line_count()).
//
// A command may also make the connection wait (wait-command): its reply is
// a function asked again whenever the simulator's state may have changed,
// until it has an answer or the time runs out. Waits of several clients are
// served oldest first. `exit <code>` and `crash <signal>` end the process
// once their reply is out (process_command()).

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kal::simctl {

using Clock = std::chrono::steady_clock;

struct ControlReply {
    enum class Then { Reply, Wait, Exit, Crash };
    std::string text;  // the whole reply, lines joined by '\n', no final newline
    Then then = Then::Reply;
    int value = 0;  // Exit: the status; Crash: the signal
    // Wait: the reply once there is one.
    std::function<std::optional<std::string>()> wait;
    std::string wait_timeout_text;
    Clock::duration wait_timeout{};
};

ControlReply ok(std::string text = "");
ControlReply error(std::string text);
ControlReply list(const char* noun, const std::vector<std::string>& lines);
// A reply now when `attempt` has one, else a wait of up to `seconds`.
ControlReply wait_for(std::function<std::optional<std::string>()> attempt, double seconds,
                      std::string timeout_text);
// The help listing of one "name args   explanation" line per command.
ControlReply help(const std::vector<std::string>& lines);

// `exit <code>` and `crash <signal>`; nothing for any other command name.
std::optional<ControlReply> process_command(std::string_view name, std::string_view args);
extern const char* const kProcessHelp[2];

// How many lines follow a reply's first line.
int reply_line_count(std::string_view first_line);

// Signal number from "11", "segv", "SIGSEGV"; nothing when unknown or when
// the signal does not end a process by default.
std::optional<int> parse_signal(std::string_view text);

// Dies by `sig` as its default action would, without a core file.
[[noreturn]] void die_by(int sig);

}  // namespace kal::simctl
