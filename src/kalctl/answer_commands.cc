#include "kalctl/answer_commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "answer/answer_client.h"
#include "answer/audio.h"
#include "kalctl/commands.h"
#include "service/sd_bus_handles.h"

namespace kal::kalctl {

namespace {

using answer::AnswerClient;
using answer::AnswerError;

std::string local_time(int64_t seconds) {
    const time_t t = static_cast<time_t>(seconds);
    struct tm tm {};
    localtime_r(&t, &tm);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    return buf;
}

std::string caller(const std::string& number, const std::string& name) {
    std::string out = number.empty() ? "withheld" : number;
    if (!name.empty())
        out += " " + name;
    return out;
}

std::string seconds(int64_t ms) {
    std::ostringstream s;
    s << std::fixed << std::setprecision(1) << static_cast<double>(ms) / 1000.0 << " s";
    return s.str();
}

int64_t message_id(const Invocation& inv, size_t at) {
    if (inv.args.size() <= at)
        throw UsageError(inv.command, "which message? give its id (see kalctl messages)");
    return parse_int(inv.command, "the message id", inv.args[at], 1, INT32_MAX);
}

int list(AnswerClient& client, const Invocation& inv, std::ostream& out) {
    int32_t mailbox = 0;
    if (auto text = inv.value("--mailbox"))
        mailbox = parse_int(inv.command, "--mailbox", *text, 1, 99);
    const auto messages = client.listMessages(mailbox);
    if (messages.empty()) {
        out << "No messages." << std::endl;
        return kExitOk;
    }
    out << "  ID  BOX  LINE      RECEIVED             LENGTH  STATE  CALLER" << std::endl;
    for (const auto& m : messages)
        out << std::setw(4) << m.id << "  " << std::setw(3) << std::left << m.mailbox << "  "
            << std::setw(8) << m.line << "  " << local_time(m.received) << "  " << std::right
            << std::setw(6) << seconds(m.durationMs) << "  " << std::left << std::setw(5) << m.state
            << std::right << "  " << caller(m.callerNumber, m.callerName) << std::endl;
    return kExitOk;
}

int play(AnswerClient& client, const Invocation& inv, std::ostream& out) {
    const int64_t id = message_id(inv, 1);
    if (inv.args.size() < 3)
        throw UsageError(inv.command, "play needs a file to write the WAV to");
    const std::string path = absolute(inv.args[2]);
    unique_fd in = client.openMessage(id);
    unique_fd dest(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!dest)
        throw Failure("cannot write " + path + ": " + std::strerror(errno));
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(in.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw Failure("cannot read message " + std::to_string(id) + ": " +
                          std::strerror(errno));
        if (n == 0)
            break;
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(dest.get(), buf + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                throw Failure("cannot write " + path + ": " + std::strerror(errno));
            done += w;
        }
    }
    dest.reset();
    const answer::AudioInfo info = answer::probe_audio(path);
    out << "Message " << id << " written to " << path << ": " << info.format << ", " << info.rate
        << " Hz, " << info.channels << (info.channels == 1 ? " channel, " : " channels, ")
        << seconds(info.duration_ms()) << std::endl;
    return kExitOk;
}

int calls(AnswerClient& client, const Invocation& inv, std::ostream& out) {
    int32_t limit = 20;
    if (auto text = inv.value("--limit"))
        limit = parse_int(inv.command, "--limit", *text, 1, 10000);
    const auto log = client.listCalls(limit);
    if (log.empty()) {
        out << "No calls." << std::endl;
        return kExitOk;
    }
    out << "STARTED              LINE      OUTCOME       CALLER" << std::endl;
    for (const auto& c : log) {
        std::string outcome = c.outcome;
        if (c.messageId)
            outcome += " #" + std::to_string(c.messageId);
        out << local_time(c.started) << "  " << std::left << std::setw(8) << c.line << "  "
            << std::setw(12) << outcome << std::right << "  "
            << caller(c.callerNumber, c.callerName) << std::endl;
    }
    return kExitOk;
}

}  // namespace

std::vector<CommandDescription> answer_command_descriptions() {
    return {
        {"messages",
         "[list|play ID FILE.wav|delete ID|heard ID]",
         0,
         3,
         "the answering machine's messages (kal-answer)",
         "list (the default) shows every message that is not deleted: id, mailbox, line,\n"
         "when, length, state (new, heard, saved) and the caller. play writes a message\n"
         "to a WAV file and says what it holds; delete deletes it; heard marks it heard.\n"
         "Talks to kal-answer on the system bus, not to the daemon.",
         {{"--mailbox", "N", "list only mailbox N"}}},
        {"calls",
         "",
         0,
         0,
         "the answering machine's call log (kal-answer), newest first",
         "Every call kal-answer saw, answered or not, with what became of it.",
         {{"--limit", "N", "show at most N calls (default 20)"}}},
        {"web",
         "",
         0,
         0,
         "print the address of the answering machine's messages page (kal-answer)",
         "The page lists, plays and deletes messages and takes new greetings. It is\n"
         "served on 127.0.0.1 only; the address carries the install's token, so keep\n"
         "it to yourself. Asked of kal-answer on the system bus.",
         {}},
    };
}

bool is_answer_command(const std::string& command) {
    return command == "messages" || command == "calls" || command == "web";
}

int run_answer_command(const Invocation& inv, std::ostream& out, std::ostream& err) {
    const std::string where = "kalctl " + inv.command;
    try {
        AnswerClient client;
        if (inv.command == "calls")
            return calls(client, inv, out);
        if (inv.command == "web") {
            out << client.webAddress() << std::endl;
            return kExitOk;
        }
        const std::string action = inv.args.empty() ? "list" : inv.args[0];
        if (action == "list")
            return list(client, inv, out);
        if (action == "play")
            return play(client, inv, out);
        if (action == "delete") {
            const int64_t id = message_id(inv, 1);
            client.deleteMessage(id);
            out << "Message " << id << " deleted" << std::endl;
            return kExitOk;
        }
        if (action == "heard") {
            const int64_t id = message_id(inv, 1);
            client.markHeard(id);
            out << "Message " << id << " marked heard" << std::endl;
            return kExitOk;
        }
        throw UsageError(inv.command,
                         "unknown action '" + action + "' (list, play, delete or heard)");
    } catch (const AnswerError& e) {
        err << where << ": " << e.what() << std::endl;
        const bool unreachable = e.name().empty() || e.name() == SD_BUS_ERROR_SERVICE_UNKNOWN ||
                                 e.name() == SD_BUS_ERROR_NAME_HAS_NO_OWNER ||
                                 e.name() == SD_BUS_ERROR_ACCESS_DENIED;
        return unreachable ? kExitNoDaemon : kExitFailed;
    } catch (const answer::AudioError& e) {
        err << where << ": " << e.what() << std::endl;
        return kExitFailed;
    }
}

}  // namespace kal::kalctl
