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
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

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

// The handler of a simulator's command `name` (lower case) given the rest of
// the line, or nothing when it has no such command.
using Lookup =
    std::function<std::optional<ControlReply>(const std::string& name, std::string_view args)>;
// Serves one control line: `exit <code>` and `crash <signal>` here, any other
// command through `find`; an empty line or an unknown name is an error.
ControlReply dispatch(std::string_view line, const Lookup& find);
// A simulator's commands: name to handler of its own context.
template <class Context>
using HandlerTable = std::map<std::string, std::function<ControlReply(Context&)>, std::less<>>;

// dispatch() over such a table, with a context that `make_context(args)`
// builds.
template <class Table, class MakeContext>
ControlReply dispatch_table(std::string_view line, const Table& table, MakeContext make_context) {
    return dispatch(
        line, [&](const std::string& name, std::string_view args) -> std::optional<ControlReply> {
            auto it = table.find(name);
            if (it == table.end())
                return std::nullopt;
            auto context = make_context(args);
            return it->second(context);
        });
}
extern const char* const kProcessHelp[2];

// How many lines follow a reply's first line.
int reply_line_count(std::string_view first_line);

// Signal number from "11", "segv", "SIGSEGV"; nothing when unknown or when
// the signal does not end a process by default.
std::optional<int> parse_signal(std::string_view text);

// Dies by `sig` as its default action would, without a core file.
[[noreturn]] void die_by(int sig);

// Blocks exactly `sigs` (whatever else was blocked is open again), ignores
// SIGPIPE and returns a non-blocking signalfd for them; an empty descriptor
// (after a complaint) on failure.
kal::unique_fd signal_fd_for(std::initializer_list<int> sigs);

}  // namespace kal::simctl
