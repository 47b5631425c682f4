#include "simctl/control.h"

#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

#include "simctl/text.h"
#include "simctl/trace.h"

namespace kal::simctl {

ControlReply ok(std::string text) {
    ControlReply r;
    r.text = text.empty() ? "ok" : "ok " + text;
    return r;
}

ControlReply error(std::string text) {
    ControlReply r;
    r.text = "error " + text;
    return r;
}

ControlReply list(const char* noun, const std::vector<std::string>& lines) {
    ControlReply r;
    r.text = "ok " + std::to_string(lines.size()) + " " + noun;
    for (const auto& l : lines)
        r.text += "\n" + l;
    return r;
}

ControlReply help(const std::vector<std::string>& lines) {
    std::vector<std::string> all = lines;
    all.insert(all.end(), std::begin(kProcessHelp), std::end(kProcessHelp));
    all.emplace_back("help                       this list");
    return list("lines", all);
}

ControlReply wait_for(std::function<std::optional<std::string>()> attempt, double seconds,
                      std::string timeout_text) {
    ControlReply r;
    if (auto now = attempt()) {
        r.text = *now;
        return r;
    }
    r.then = ControlReply::Then::Wait;
    r.wait = std::move(attempt);
    r.wait_timeout_text = std::move(timeout_text);
    // Bounded (and NaN refused) before the conversion, which is undefined
    // for a value the clock's integer cannot hold ("wait-command P inf").
    constexpr double kLongestWait = 24 * 3600;
    if (!(seconds >= 0))
        seconds = 0;
    r.wait_timeout = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::min(seconds, kLongestWait)));
    return r;
}

const char* const kProcessHelp[2] = {
    "exit <code>                exit with that status",
    "crash <signal>             die by that signal (segv, abrt, kill, 11...)",
};

namespace {

// `exit <code>` and `crash <signal>`; nothing for any other command name.
std::optional<ControlReply> process_command(std::string_view name, std::string_view args) {
    if (name == "exit") {
        auto code = parse_long(args);
        if (!code || *code < 0 || *code > 255)
            return error("exit needs a status from 0 to 255");
        ControlReply r = ok("exiting with status " + std::string(args));
        r.then = ControlReply::Then::Exit;
        r.value = static_cast<int>(*code);
        return r;
    }
    if (name == "crash") {
        auto sig = parse_signal(args);
        if (!sig)
            return error("crash needs a signal that ends a process, e.g. segv, abrt, kill");
        ControlReply r = ok("crashing with signal " + std::to_string(*sig) + " (" +
                            (sigabbrev_np(*sig) ? sigabbrev_np(*sig) : "?") + ")");
        r.then = ControlReply::Then::Crash;
        r.value = *sig;
        return r;
    }
    return std::nullopt;
}

}  // namespace

ControlReply dispatch(std::string_view line, const Lookup& find) {
    std::string_view rest = line;
    std::string name = lower(next_word(rest));
    if (name.empty())
        return error("empty command (try help)");
    if (auto r = process_command(name, rest))
        return *r;
    if (auto r = find(name, rest))
        return *r;
    return error("unknown command '" + name + "' (try help)");
}

int reply_line_count(std::string_view first_line) {
    std::string_view rest = first_line;
    if (next_word(rest) != "ok")
        return 0;
    auto n = parse_long(next_word(rest));
    std::string_view noun = next_word(rest);
    bool listing = noun == "commands" || noun == "messages" || noun == "lines";
    return n && *n > 0 && listing && rest.empty() ? static_cast<int>(*n) : 0;
}

std::optional<int> parse_signal(std::string_view text) {
    std::string s = lower(trim(text));
    std::optional<int> sig;
    if (auto n = parse_long(s)) {
        sig = static_cast<int>(*n);
    } else {
        if (s.rfind("sig", 0) == 0)
            s = s.substr(3);
        for (int i = 1; i < NSIG && !sig; ++i)
            if (const char* abbrev = sigabbrev_np(i); abbrev && lower(abbrev) == s)
                sig = i;
    }
    if (!sig || *sig <= 0 || *sig >= NSIG)
        return std::nullopt;
    // Signals whose default action does not end the process.
    switch (*sig) {
        case SIGCHLD:
        case SIGCONT:
        case SIGURG:
        case SIGWINCH:
        case SIGSTOP:
        case SIGTSTP:
        case SIGTTIN:
        case SIGTTOU:
            return std::nullopt;
    }
    if (*sig > SIGSYS && *sig < SIGRTMIN)  // reserved by the C library
        return std::nullopt;
    return sig;
}

kal::unique_fd signal_fd_for(std::initializer_list<int> sigs) {
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    for (int sig : sigs)
        sigaddset(&set, sig);
    // SIG_SETMASK, not SIG_BLOCK: whatever a parent left blocked is open again.
    if (sigprocmask(SIG_SETMASK, &set, nullptr) != 0) {
        fail("sigprocmask: %s", strerror(errno));
        return kal::unique_fd();
    }
    kal::unique_fd fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd)
        fail("signalfd: %s", strerror(errno));
    return fd;
}

void die_by(int sig) {
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    struct sigaction sa {};
    sa.sa_handler = SIG_DFL;
    sigaction(sig, &sa, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    raise(sig);
    _exit(128 + sig);  // not reached for a signal that ends a process
}

}  // namespace kal::simctl
