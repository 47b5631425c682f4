#include "kalctl/commands.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <ostream>

#include "client/client.h"
#include "client/notification.h"
#include "kalctl/answer_commands.h"
#include "kalctl/menu_commands.h"
#include "kalctl/session.h"
#include "log/kallog.h"
#include "service/bus_contract.h"
#include "service/kal_errors.h"
#include "service/vocabulary.h"

namespace kal::kalctl {

using client::Client;
using client::Notification;

namespace {

std::string path_option(const Invocation& inv, const std::string& option) {
    return absolute(inv.value(option).value_or(""));
}

// Starts something that ends with a RequestComplete under `token`; with
// --wait, waits for it and reports it.
int start_and_wait(Session& session, const Invocation& inv, const std::string& token,
                   const std::function<std::string()>& start, const std::string& started,
                   std::ostream& out, std::ostream& err) {
    const bool wait = inv.has("--wait");
    const auto timeout = seconds_option(inv, "--timeout");
    std::optional<Notification> completion;
    if (wait) {
        // Subscribed before the request, so that a quick completion is not missed.
        session.client().subscribe(kal_RequestComplete);
        session.onNotification([&](const Notification& n) {
            if (!completion && client::completes(n, token))
                completion = n;
        });
        session.client().stopOnSignals({SIGINT, SIGTERM});
    }
    check(start());
    out << started << " (token " << token << ")" << std::endl;
    if (!wait)
        return kExitOk;

    const auto result = session.client().run(timeout, [&] { return completion.has_value(); });
    if (result == Client::RunResult::Stopped) {
        err << "kalctl: interrupted before the request completed" << std::endl;
        return kExitFailed;
    }
    if (result == Client::RunResult::TimedOut) {
        err << "kalctl: no RequestComplete for token " << token << " within "
            << timeout->count() / 1000 << " s" << std::endl;
        return kExitFailed;
    }
    out << client::format_notification(*completion) << std::endl;
    const auto code = completion->userInfo.find(kal_ResponseCode);
    const std::string responseCode = code == completion->userInfo.end() ? "" : code->second.str();
    if (client::is_success_response(responseCode))
        return kExitOk;
    err << "kalctl: " << describe_response_failure(responseCode) << std::endl;
    return kExitFailed;
}

int cmd_lines(Session& s, const Invocation&, std::ostream& out) {
    const auto serials = s.client().resources();
    if (serials.empty()) {
        out << KALUserPresentableTextForResponse(kal_ResponseCode_ERR_NoResource) << std::endl;
        return kExitOk;
    }
    const auto enhanced = s.client().enhancedResources();
    size_t width = 0;
    for (const auto& serial : serials)
        width = std::max(width, serial.size());
    for (const auto& serial : serials) {
        const int32_t type = s.client().deviceTypeForResource(serial);
        std::string line = serial;
        line.resize(width + 2, ' ');
        line += type > 0 ? "type " + std::to_string(type) : "type unknown";
        if (std::find(enhanced.begin(), enhanced.end(), serial) != enhanced.end())
            line += " (enhanced)";
        else if (type == 3)
            line += " (voice modem)";
        out << line << std::endl;
    }
    return kExitOk;
}

int cmd_monitor(Session& s, const Invocation& inv, std::ostream& out, std::ostream& err) {
    const auto timeout = seconds_option(inv, "--timeout");
    std::optional<int64_t> count;
    if (auto text = inv.value("--count"))
        count = parse_int(inv.command, "--count", *text, 1, INT32_MAX);
    const bool full = inv.has("--full");

    int64_t seen = 0;
    s.onNotification([&](const Notification& n) {
        if (count && seen >= *count)
            return;  // already delivered in the same dispatch
        out << client::format_notification(n, full) << std::endl;
        ++seen;
    });
    s.client().stopOnSignals({SIGINT, SIGTERM});
    auto names = inv.options.count("--name") ? inv.options.at("--name")
                                             : client::daemon_notification_names();
    for (const auto& name : names)
        s.client().subscribe(name);
    if (isatty(STDERR_FILENO))
        err << "kalctl: listening for " << names.size() << " notification names; Ctrl-C stops"
            << std::endl;

    s.client().run(timeout, [&] { return count && seen >= *count; });
    // Polite, not needed: the daemon drops us on its next delivery anyway.
    try {
        s.client().unRegisterMe();
    } catch (const std::exception&) {
    }
    return kExitOk;
}

int cmd_dial(Session& s, const Invocation& inv, std::ostream& out, std::ostream& err) {
    const std::string serial = inv.args[0] == "any" ? "" : inv.args[0];
    const std::string& digits = inv.args[1];
    const bool pickup = inv.has("--wait-for-pickup");
    const std::string token = inv.value("--token").value_or(made_up_token());
    const std::string what = pickup ? "Will dial " + digits + " when " +
                                          (serial.empty() ? "any line" : serial) + " is picked up"
                                    : "Dialling " + digits + " on " + serial;
    return start_and_wait(
        s, inv, token, [&] { return s.client().dial(digits, serial, token, pickup); }, what, out,
        err);
}

int cmd_call(Session& s, const Invocation& inv, std::ostream& out, std::ostream& err) {
    const std::string token = inv.value("--token").value_or(made_up_token());
    return start_and_wait(
        s, inv, token,
        [&] { return s.client().placeCallOnResource(inv.args[0], inv.args[1], token); },
        "Calling " + inv.args[1] + " on " + inv.args[0], out, err);
}

int cmd_voicemail(Session& s, const Invocation& inv, std::ostream& out, std::ostream& err) {
    const std::string greeting = path_option(inv, "--greeting");
    const std::string message = path_option(inv, "--message");
    std::vector<std::string> choices;
    if (auto text = inv.value("--choices"))
        choices = parse_choices(inv.command, *text);
    const auto number = [&](const char* option, int64_t max) {
        auto text = inv.value(option);
        return text ? parse_int(inv.command, option, *text, 0, max) : 0;
    };
    const int32_t maxLength = number("--max-length", INT32_MAX);
    const int32_t pause = number("--pause", INT32_MAX);
    const int32_t special = number("--special", INT32_MAX);
    const std::string firstCalling = inv.value("--first-calling").value_or("");
    const std::string token = inv.value("--token").value_or(made_up_token());
    const std::string& serial = inv.args[0];
    return start_and_wait(
        s, inv, token,
        [&] {
            return s.client().beginVMNodeForResource(serial, token, greeting, message, choices,
                                                     maxLength, pause, special, firstCalling);
        },
        "Voicemail session started on " + serial, out, err);
}

int cmd_record(Session& s, const Invocation& inv, std::ostream& out, std::ostream& err) {
    uint32_t flags = 0;
    if (auto text = inv.value("--flags"))
        flags = static_cast<uint32_t>(parse_int(inv.command, "--flags", *text, 0, INT32_MAX));
    const std::string token = inv.value("--token").value_or(made_up_token());
    const std::string& serial = inv.args[0];
    const std::string file = absolute(inv.args[1]);
    return start_and_wait(
        s, inv, token,
        [&] {
            return s.client().beginCRNodeForResource(serial, token, file, path_option(inv, "--pre"),
                                                     path_option(inv, "--post"), flags);
        },
        "Recording " + serial + " into " + file, out, err);
}

int cmd_prefs(Session& s, const Invocation& inv, std::ostream& out) {
    const auto print = [&](const ValueDict& prefs) {
        if (prefs.empty())
            out << "(no line preferences)" << std::endl;
        for (const auto& [key, value] : prefs)
            out << key << " = " << describe(value) << std::endl;
    };
    const bool changes = !inv.args.empty() || inv.has("--unset");
    if (!changes) {
        print(s.client().linePreferences());
        return kExitOk;
    }
    ValueDict prefs = inv.has("--replace") ? ValueDict{} : s.client().linePreferences();
    for (auto& [key, value] : parse_assignments(inv.command, inv.args))
        prefs[key] = std::move(value);
    if (inv.options.count("--unset"))
        for (const auto& key : inv.options.at("--unset"))
            prefs.erase(key);
    if (prefs.empty())
        // The contract reads an empty dictionary as nil, which writes nothing.
        throw Failure("the daemon does not store an empty set of line preferences");
    s.client().setLinePreferences(prefs);
    print(s.client().linePreferences());
    return kExitOk;
}

int cmd_debug_level(Session& s, const Invocation& inv, std::ostream& out) {
    const int32_t level = parse_debug_level(inv.command, inv.args[0]);
    const bool write = inv.has("--write");
    s.client().setSystemWideDebugLevel(level, write);
    out << "Log level set to " << level << " (" << kallog_level_name(static_cast<unsigned>(level))
        << ")" << (write ? ", kept for the next start" : "") << std::endl;
    return kExitOk;
}

int cmd_send(Session& s, const Invocation& inv, std::ostream& out) {
    const std::vector<std::string> pairs(inv.args.begin() + 1, inv.args.end());
    const ValueDict userInfo = parse_assignments(inv.command, pairs);
    const auto object = inv.value("--object");
    s.client().redistributeNotification(inv.args[0], object ? Value(*object) : Value(), userInfo);
    out << "Sent " << inv.args[0] << std::endl;
    return kExitOk;
}

// Every value a person typed is checked before we connect, so that a typo
// is reported as such and not as whatever the daemon makes of it.
void validate(const Invocation& inv) {
    const std::string& c = inv.command;
    seconds_option(inv, "--timeout");
    if (auto text = inv.value("--count"))
        parse_int(c, "--count", *text, 1, INT32_MAX);
    for (const char* option : {"--max-length", "--pause", "--special", "--flags"})
        if (auto text = inv.value(option))
            parse_int(c, option, *text, 0, INT32_MAX);
    if (auto text = inv.value("--vls"))
        parse_int(c, "--vls", *text, INT32_MIN, INT32_MAX);
    if (auto text = inv.value("--choices"))
        parse_choices(c, *text);
    if (c == "dial" && inv.args[0] == "any" && !inv.has("--wait-for-pickup"))
        throw UsageError(c, "dialling on any line needs --wait-for-pickup");
    if (c == "voicemail" && !inv.has("--greeting") && !inv.has("--message"))
        throw UsageError(c, "give --greeting, --message or both");
    if (c == "debug-level")
        parse_debug_level(c, inv.args[0]);
    if (c == "script")
        validate_script(inv);
    if (c == "vmcheck")
        validate_vmcheck(inv);
    if (c == "prefs" || c == "send")
        parse_assignments(
            c, std::vector<std::string>(inv.args.begin() + (c == "send"), inv.args.end()));
}

int dispatch(const Invocation& inv, std::ostream& out, std::ostream& err) {
    // The answering machine's commands talk to kal-answer, not the daemon.
    if (is_answer_command(inv.command))
        return run_answer_command(inv, out, err);
    validate(inv);
    Session s(inv.global);
    const std::string& c = inv.command;
    Client& client = s.client();
    if (c == "lines")
        return cmd_lines(s, inv, out);
    if (c == "monitor")
        return cmd_monitor(s, inv, out, err);
    if (c == "dial")
        return cmd_dial(s, inv, out, err);
    if (c == "cancel-dial") {
        check(client.cancelDialWithCallbackToken(inv.args[0]));
        out << "Cancelled the dial of token " << inv.args[0] << std::endl;
        return kExitOk;
    }
    if (c == "hangup") {
        check(client.hangUpResource(inv.args[0], made_up_token()));
        out << "Hanging up " << inv.args[0] << std::endl;
        return kExitOk;
    }
    if (c == "call")
        return cmd_call(s, inv, out, err);
    if (c == "trv") {
        const auto vls = inv.value("--vls");
        const int32_t mode = vls ? parse_int(c, "--vls", *vls, INT32_MIN, INT32_MAX) : 0;
        check(client.performTRVOnResource(inv.args[0], inv.args[1], mode));
        out << "Timed reversal sent on " << inv.args[0] << std::endl;
        return kExitOk;
    }
    if (c == "voicemail")
        return cmd_voicemail(s, inv, out, err);
    if (c == "record")
        return cmd_record(s, inv, out, err);
    if (c == "stop-record") {
        check(client.stopCRNodeForResource(inv.args[0]));
        out << "Stopping the recording on " << inv.args[0] << std::endl;
        return kExitOk;
    }
    if (c == "script")
        return cmd_script(s, inv, out, err);
    if (c == "vmcheck")
        return cmd_vmcheck(s, inv, out, err);
    if (c == "prefs")
        return cmd_prefs(s, inv, out);
    if (c == "debug-level")
        return cmd_debug_level(s, inv, out);
    if (c == "rescan") {
        client.fullResourceRescan();
        out << "Rescan requested" << std::endl;
        return kExitOk;
    }
    if (c == "send")
        return cmd_send(s, inv, out);
    throw UsageError("", "unknown command '" + c + "'");
}

}  // namespace

std::string describe_response_failure(const std::string& responseCode) {
    if (responseCode.empty())
        return KALUserPresentableTextForResponse(responseCode) + " (no response code)";
    return KALUserPresentableTextForResponse(responseCode) + " (" + responseCode + ")";
}

std::string describe_bus_failure(const std::string& errorName, const std::string& message) {
    if (errorName == SD_BUS_ERROR_SERVICE_UNKNOWN || errorName == SD_BUS_ERROR_NAME_HAS_NO_OWNER)
        return std::string("kaldevicemaster is not running (no one owns ") + kal_DO_Server_Name +
               " on the system bus)";
    if (errorName == SD_BUS_ERROR_ACCESS_DENIED)
        return "the system bus does not let you talk to kaldevicemaster: run kalctl as root or "
               "as a member of the group kal";
    if (errorName == SD_BUS_ERROR_UNKNOWN_METHOD || errorName == SD_BUS_ERROR_UNKNOWN_OBJECT ||
        errorName == SD_BUS_ERROR_UNKNOWN_INTERFACE)
        return "the daemon does not know this request (" + message +
               "); is it an older kaldevicemaster?";
    if (errorName.empty())
        return message;
    return message + " (" + errorName + ")";
}

int run(const Invocation& inv, std::ostream& out, std::ostream& err) {
    const std::string where = inv.command.empty() ? "kalctl" : "kalctl " + inv.command;
    try {
        if (inv.version) {
            out << "kalctl " << KALCTL_VERSION << " (protocol " << client::kProtocolVersion << ")"
                << std::endl;
            return kExitOk;
        }
        if (inv.help) {
            const CommandDescription* desc = find_command(inv.command);
            out << (desc ? command_help(*desc) : global_help());
            return kExitOk;
        }
        return dispatch(inv, out, err);
    } catch (const UsageError& e) {
        err << where << ": " << e.what() << "\n(try '"
            << (e.command().empty() ? "kalctl" : "kalctl " + e.command()) << " --help')"
            << std::endl;
        return kExitUsage;
    } catch (const Failure& e) {
        err << where << ": " << e.what() << std::endl;
        return kExitFailed;
    } catch (const KALException& e) {
        // The reason is the daemon's own text: "#16 Unauthenticated request",
        // or #35 with the versions it accepts.
        err << where << ": the daemon refused the request: " << e.reason() << std::endl;
        return kExitFailed;
    } catch (const client::BusFailure& e) {
        err << where << ": " << describe_bus_failure(e.name(), e.what()) << std::endl;
        return kExitNoDaemon;
    }
}

}  // namespace kal::kalctl
