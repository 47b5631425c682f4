#include "kalctl/menu_commands.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <deque>
#include <filesystem>
#include <ostream>

#include "client/client.h"
#include "client/notification.h"
#include "kalctl/answering.h"
#include "kalctl/commands.h"
#include "service/vocabulary.h"

namespace kal::kalctl {

using client::Client;
using client::Notification;
using Clock = std::chrono::steady_clock;

namespace {

// A script session ends by itself once the client has answered this many
// scripts: the menu is offered at most five times.
constexpr int kScriptsPerSession = 5;
// The script session takes a completion of a run it is not waiting for as
// stale and ignores it, while the daemon answers no-resource once the
// session has left the line: a completion of run -1 is a harmless question
// whether it is still there.
constexpr int32_t kProbeRun = -1;
constexpr std::chrono::seconds kProbeEvery{3};
// A remote check plays its menu seven times in a row, each time followed by
// five seconds of silence, before it gives up on a caller who presses
// nothing; with a margin, that is how long it may be quiet.
constexpr int kMenuPlays = 7;
constexpr std::chrono::seconds kMenuPause{5};
constexpr std::chrono::seconds kQuietMargin{10};
// Audio files are 8000 one-byte samples a second.
constexpr long long kBytesPerSecond = 8000;

std::chrono::milliseconds play_time(const std::string& path) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    if (ec)
        return std::chrono::milliseconds(0);
    return std::chrono::milliseconds(static_cast<long long>(size) * 1000 / kBytesPerSecond);
}

// How long a remote check may go on without asking anything of us while the
// caller presses nothing: `first` plays, then `menu` over and over.
std::chrono::milliseconds silent_caller_time(std::chrono::milliseconds first,
                                             std::chrono::milliseconds menu) {
    return first + kMenuPlays * (menu + kMenuPause) + kQuietMargin;
}

std::string base_name(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

const Value& info(const Notification& n, const char* key) {
    static const Value none;
    auto it = n.userInfo.find(key);
    return it == n.userInfo.end() ? none : it->second;
}

// The events after which the call is over, whatever the session on it
// thinks: the caller hung up (the exchange's busy or dial tone, or a line
// reversal that no session took), an extension was picked up, or the
// adapter went away.
bool ends_call(const Notification& n, const std::string& serial) {
    if (n.object.str() != serial)
        return false;
    if (n.name == kal_LineReversal || n.name == kal_BusyTone || n.name == kal_Dialtone)
        return true;
    const Value& hook = info(n, kal_HookContentsKey);
    if (n.name == kal_HookStatus && hook.is<int32_t>() && hook.as<int32_t>() == 0)
        return true;
    const Value& available = info(n, kal_ResourceAvailabilityKey);
    return n.name == kal_ResourceAvailabilityChanged && available.is<int32_t>() &&
           available.as<int32_t>() == 0;
}

// One session on one line: the daemon's requests under our token, until
// the session or the call ends. Neither the script menu nor the remote
// check sends a RequestComplete when it ends well (only failures are
// reported), and the line reversal that ends most calls is taken by the
// session itself. So the end is read from the events that do reach clients
// (the exchange's busy or dial tone after a hang-up, an extension picked
// up, the adapter gone), from the session's own limits, from a probe where
// the daemon offers a harmless one, and at last from silence.
class SessionServer {
  public:
    enum class Verdict { Continue, Done };
    using Handler = std::function<Verdict(const Notification&)>;
    // True while the session is still on the line.
    using Probe = std::function<bool()>;

    SessionServer(Session& session, const Invocation& inv, std::string serial, std::string token,
                  std::ostream& out, std::ostream& err)
        : session_(session),
          serial_(std::move(serial)),
          token_(std::move(token)),
          timeout_(seconds_option(inv, "--timeout")),
          idle_(seconds_option(inv, "--idle")),
          out_(out),
          err_(err) {}

    // Subscribes to the requests of the session and the events that end
    // it. Before the session starts, so that nothing is missed.
    void subscribe(const std::vector<std::string>& requests) {
        requests_ = requests;
        session_.onNotification([this](const Notification& n) { queue_.push_back(n); });
        session_.client().stopOnSignals({SIGINT, SIGTERM});
        for (const auto& name : requests_)
            session_.client().subscribe(name);
        for (const char* name : {kal_BusyTone, kal_Dialtone, kal_LineReversal, kal_HookStatus,
                                 kal_ResourceAvailabilityChanged, kal_RequestComplete})
            session_.client().subscribe(name);
    }

    // Asks `probe` after every `every` without a request whether the
    // session is still there.
    void probeEvery(std::chrono::milliseconds every, Probe probe) {
        probeEvery_ = every;
        probe_ = std::move(probe);
    }

    // Unless --idle says otherwise, the session is taken as over when it
    // has asked for nothing for `quiet` from now on: longer than a caller
    // who presses nothing could keep it going.
    void expectQuietAtMost(std::chrono::milliseconds quiet) {
        if (!idle_)
            quietDeadline_ = Clock::now() + quiet;
    }

    int serve(const Handler& handler) {
        const auto start = Clock::now();
        const auto deadline = timeout_ ? start + *timeout_ : Clock::time_point::max();
        if (idle_)
            quietDeadline_ = start + *idle_;
        auto nextProbe = probe_ ? start + probeEvery_ : Clock::time_point::max();
        for (;;) {
            const auto until = std::min({deadline, quietDeadline_, nextProbe});
            std::optional<std::chrono::milliseconds> wait;
            if (until != Clock::time_point::max())
                wait = std::max(std::chrono::milliseconds(0),
                                std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()));
            const auto result = session_.client().run(wait, [&] { return !queue_.empty(); });
            if (result == Client::RunResult::Stopped) {
                err_ << "kalctl: interrupted; the session on " << serial_
                     << " goes on without answers" << std::endl;
                return kExitFailed;
            }
            const auto now = Clock::now();
            if (result == Client::RunResult::TimedOut) {
                if (now >= deadline) {
                    err_ << "kalctl: the session on " << serial_ << " did not end within "
                         << timeout_->count() / 1000 << " s" << std::endl;
                    return kExitFailed;
                }
                if (now >= quietDeadline_) {
                    out_ << "No request from the session on " << serial_ << " for "
                         << std::chrono::duration_cast<std::chrono::seconds>(now -
                                                                             lastRequest(start))
                                .count()
                         << " s: it is over." << std::endl;
                    return kExitOk;
                }
                if (now >= nextProbe) {
                    if (!probe_()) {
                        out_ << "The session on " << serial_ << " has ended." << std::endl;
                        return kExitOk;
                    }
                    nextProbe = now + probeEvery_;
                }
                continue;
            }
            while (!queue_.empty()) {
                const Notification n = std::move(queue_.front());
                queue_.pop_front();
                if (n.name == kal_RequestComplete) {
                    if (!client::completes(n, token_))
                        continue;
                    out_ << client::format_notification(n) << std::endl;
                    const std::string code = info(n, kal_ResponseCode).str();
                    if (client::is_success_response(code))
                        return kExitOk;
                    err_ << "kalctl: " << describe_response_failure(code) << std::endl;
                    return kExitFailed;
                }
                if (std::find(requests_.begin(), requests_.end(), n.name) != requests_.end()) {
                    if (info(n, kal_Token).str() != token_)
                        continue;
                    lastRequest_ = Clock::now();
                    if (idle_)
                        quietDeadline_ = *lastRequest_ + *idle_;
                    if (probe_)
                        nextProbe = *lastRequest_ + probeEvery_;
                    out_ << client::format_notification(n) << std::endl;
                    if (handler(n) == Verdict::Done)
                        return kExitOk;
                    continue;
                }
                if (ends_call(n, serial_)) {
                    out_ << client::format_notification(n) << std::endl;
                    out_ << "The call on " << serial_ << " has ended." << std::endl;
                    return kExitOk;
                }
            }
        }
    }

    // Says what became of an answer; false when the session was no longer
    // there to take it.
    bool answered(const std::string& responseCode, const std::string& what) {
        if (responseCode == kal_ResponseCode_OK) {
            out_ << "  " << what << std::endl;
            return true;
        }
        if (responseCode == kal_ResponseCode_ERR_NoResource) {
            // The daemon has deleted what we sent.
            out_ << "  The session on " << serial_ << " has ended." << std::endl;
            return false;
        }
        err_ << "kalctl: " << describe_response_failure(responseCode) << std::endl;
        return true;
    }

  private:
    Clock::time_point lastRequest(Clock::time_point start) const {
        return lastRequest_.value_or(start);
    }

    Session& session_;
    const std::string serial_;
    const std::string token_;
    const std::optional<std::chrono::milliseconds> timeout_;
    const std::optional<std::chrono::milliseconds> idle_;
    std::ostream& out_;
    std::ostream& err_;
    std::vector<std::string> requests_;
    std::deque<Notification> queue_;
    std::chrono::milliseconds probeEvery_{0};
    Probe probe_;
    Clock::time_point quietDeadline_ = Clock::time_point::max();
    std::optional<Clock::time_point> lastRequest_;
};

// The line must exist: a session on a line the daemon does not have ends
// without telling anyone.
void check_line(Session& session, const std::string& serial) {
    if (session.client().deviceTypeForResource(serial) < 0)
        throw Failure(describe_response_failure(kal_ResponseCode_ERR_NoResource));
}

void check_readable(const std::string& path) {
    if (::access(path.c_str(), R_OK) != 0)
        throw Failure("cannot read " + path + ": " + std::strerror(errno));
}

}  // namespace

void validate_script(const Invocation& inv) {
    seconds_option(inv, "--idle");
    for (const auto& [code, file] : parse_script_menu(inv).answers)
        check_readable(file);
}

void validate_vmcheck(const Invocation& inv) {
    for (const char* option : {"--greeting", "--inter-greeting", "--messages"})
        if (!inv.value(option))
            throw UsageError(inv.command, std::string(option) + " is needed");
    seconds_option(inv, "--idle");
    MessageFolder folder(*inv.value("--messages"));
    for (const char* option : {"--greeting", "--inter-greeting", "--no-more"})
        if (auto file = inv.value(option))
            check_readable(*file);
}

int cmd_script(Session& session, const Invocation& inv, std::ostream& out, std::ostream& err) {
    const ScriptMenu menu = parse_script_menu(inv);
    const AudioCopies copies;
    const std::string& serial = inv.args[0];
    const std::string token = inv.value("--token").value_or(made_up_token());
    check_line(session, serial);

    SessionServer server(session, inv, serial, token, out, err);
    server.subscribe({kal_PleaseRunActionScriptForCaller});
    check(session.client().startScriptNodeForResource(serial, token, menu.silent_codes(),
                                                      menu.audio_codes(), menu.prepick));
    out << "Script menu started on " << serial << " (token " << token << "):";
    for (const auto& code : menu.codes) {
        auto it = menu.answers.find(code);
        out << (code == menu.codes.front() ? " " : ", ") << code << " "
            << (it == menu.answers.end() ? "answers nothing" : "plays " + base_name(it->second));
    }
    if (!menu.prepick.empty())
        out << "; " << menu.prepick << " pre-picked";
    out << std::endl;

    server.probeEvery(kProbeEvery, [&] {
        return session.client().scriptCompletedForResource(serial, token, kProbeRun, "") ==
               kal_ResponseCode_OK;
    });
    int scripts = 0;
    return server.serve([&](const Notification& n) {
        const std::string code = info(n, kal_DigitContentsKey).str();
        const Value& sequence = info(n, kal_SequenceNumber);
        const int32_t run = sequence.is<int32_t>() ? sequence.as<int32_t>() : 0;
        ++scripts;
        auto it = menu.answers.find(code);
        if (it == menu.answers.end()) {
            // The daemon offers the menu again without waiting for us.
            out << "  Script " << code << " ran; it answers nothing." << std::endl;
        } else {
            std::string copy;
            try {
                copy = copies.copy(it->second);
            } catch (const Failure& e) {
                // The caller goes back to the menu without hearing anything.
                err << "kalctl: " << e.what() << std::endl;
            }
            const std::string what =
                copy.empty() ? "Answered without audio."
                             : "Answered with " + copy + " (a copy of " + it->second + ").";
            if (!server.answered(
                    session.client().scriptCompletedForResource(serial, token, run, copy), what))
                return SessionServer::Verdict::Done;
        }
        if (!menu.prepick.empty()) {
            out << "  That was the pre-picked script, the session's only one." << std::endl;
            return SessionServer::Verdict::Done;
        }
        if (scripts >= kScriptsPerSession) {
            out << "  That was the session's last script." << std::endl;
            return SessionServer::Verdict::Done;
        }
        return SessionServer::Verdict::Continue;
    });
}

int cmd_vmcheck(Session& session, const Invocation& inv, std::ostream& out, std::ostream& err) {
    MessageFolder folder(*inv.value("--messages"));
    const std::string greeting = absolute(*inv.value("--greeting"));
    const std::string interGreeting = absolute(*inv.value("--inter-greeting"));
    const std::string noMore = absolute(inv.value("--no-more").value_or(""));
    const auto special = inv.value("--special");
    const int32_t specialBits =
        special ? parse_int(inv.command, "--special", *special, 0, INT32_MAX) : 0;
    const AudioCopies copies;
    const std::string& serial = inv.args[0];
    const std::string token = inv.value("--token").value_or(made_up_token());
    check_line(session, serial);

    SessionServer server(session, inv, serial, token, out, err);
    server.subscribe({kal_PleaseProvideNextMessageForVMCheck, kal_PleaseRestartVMCheck});
    // The daemon deletes the main greeting when it is replaced and when the
    // call ends, but never the inter-message one.
    const std::string first = copies.copy(greeting);
    const std::string started = session.client().beginVMCheckNodeForResource(
        serial, token, first, interGreeting, specialBits);
    if (started != kal_ResponseCode_OK)
        ::unlink(first.c_str());
    check(started);
    out << "Voicemail check started on " << serial << " (token " << token
        << "): " << folder.messages(MessageFolder::Stream::Unheard).size() << " unheard, "
        << folder.messages(MessageFolder::Stream::Recent).size() << " saved" << std::endl;
    server.expectQuietAtMost(silent_caller_time({}, play_time(greeting)));

    const auto restart = [&](const std::string& menuFile, const std::string& why) {
        folder.restart();
        const std::string copy = copies.copy(menuFile);
        server.expectQuietAtMost(silent_caller_time({}, play_time(menuFile)));
        return server.answered(session.client().restartVMCheckNodeForResource(serial, token, copy),
                               why + ": back to the main menu (" + base_name(menuFile) + ").");
    };

    return server.serve([&](const Notification& n) {
        if (n.name == kal_PleaseRestartVMCheck)
            return restart(greeting, "The caller starts over") ? SessionServer::Verdict::Continue
                                                               : SessionServer::Verdict::Done;

        try {
            const std::string done =
                folder.dispose(info(n, kal_VMCheckPresentMessageDisposition).str());
            if (!done.empty())
                out << "  " << done << "." << std::endl;
        } catch (const Failure& e) {
            err << "kalctl: " << e.what() << std::endl;
        }
        const std::string filter = info(n, kal_VMCheck_Filter).str();
        const auto stream = MessageFolder::stream_named(filter);
        std::optional<MessageFolder::Message> message;
        std::string copy;
        while (stream && copy.empty() && (message = folder.next(*stream))) {
            try {
                copy = copies.copy(message->path);
            } catch (const Failure& e) {
                err << "kalctl: " << e.what() << "; skipping it" << std::endl;
            }
        }
        bool going;
        if (!copy.empty()) {
            server.expectQuietAtMost(
                silent_caller_time(play_time(message->path), play_time(interGreeting)));
            going = server.answered(session.client().nextVMCheckMessage(serial, token, copy),
                                    "Presenting " + base_name(message->path) + ", " +
                                        std::to_string(message->number) + " of " +
                                        std::to_string(message->count) + " " +
                                        MessageFolder::stream_title(*stream) + ".");
        } else {
            const std::string why = stream ? std::string("No more ") +
                                                 MessageFolder::stream_title(*stream) + " messages"
                                           : "No stream " + filter;
            going = restart(noMore.empty() ? greeting : noMore, why);
        }
        return going ? SessionServer::Verdict::Continue : SessionServer::Verdict::Done;
    });
}

}  // namespace kal::kalctl
