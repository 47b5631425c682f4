#include "kalctl/cli.h"

#include "kalctl/answer_commands.h"

#include <strings.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <filesystem>

#include "log/kallog.h"

namespace kal::kalctl {

namespace {

// Options shared by the commands that start something on a line.
const OptionDescription kToken{
    "--token", "T", "the request's token, echoed in its RequestComplete (default: made up)"};
const OptionDescription kWait{
    "--wait", nullptr,
    "wait for the request's RequestComplete, print it, and exit 0 only when "
    "it reports success"};
const OptionDescription kSessionToken{
    "--token", "T", "the session's token, in each of its requests (default: made up)"};
const OptionDescription kWaitTimeout{"--timeout", "S", "with --wait: give up after S seconds"};

}  // namespace

const std::vector<CommandDescription>& commands() {
    static const std::vector<CommandDescription> table = {
        {"lines",
         "",
         0,
         0,
         "list the telephone lines (adapters) and their types",
         "A line of type 2 is the enhanced adapter model; type 3 is a voice modem.",
         {}},
        {"monitor",
         "",
         0,
         0,
         "print notifications as they arrive",
         "Subscribes to every notification the daemon posts (line events, requests of the\n"
         "call handling, RequestComplete) and prints one line for each:\n"
         "  12:00:01 KALRingDetect KL1001 {KALQLXNumberKey = 0}\n"
         "Runs until interrupted (Ctrl-C), or as the options say.",
         {{"--count", "N", "exit after N notifications"},
          {"--timeout", "S", "exit after S seconds"},
          {"--name", "NAME", "subscribe to NAME instead of the daemon's names (repeatable)"},
          {"--full", nullptr, "print every key, the time, name and serial included"}}},
        {"dial",
         "<serial|any> <digits>",
         2,
         2,
         "dial digits on a line",
         "Without --wait-for-pickup the line is seized and dialled at once. With it, the\n"
         "digits are dialled when the handset of that line (or of any line, with 'any')\n"
         "is picked up.",
         {{"--wait-for-pickup", nullptr, "dial when the handset is picked up"},
          kToken,
          kWait,
          kWaitTimeout}},
        {"cancel-dial", "<token>", 1, 1, "cancel a dial still waiting for pickup", "", {}},
        {"hangup", "<serial>", 1, 1, "hang up a line", "", {}},
        {"call",
         "<serial> <number>",
         2,
         2,
         "place a call on a line",
         "",
         {kToken, kWait, kWaitTimeout}},
        {"trv",
         "<serial> <reason>",
         2,
         2,
         "send a timed reversal on a line",
         "",
         {{"--vls", "N", "the VLS mode (default 0)"}}},
        {"voicemail",
         "<serial>",
         1,
         1,
         "answer a line with a greeting and record a message",
         "Plays the greeting, lets the caller pick a mailbox with the touch-tone keys\n"
         "of --choices, and records the caller's message into the --message file.\n"
         "At least one of --greeting and --message is needed. Paths are made absolute\n"
         "before they are sent: the daemon does not share our working directory.",
         {{"--greeting", "F", "the audio file played first"},
          {"--message", "F", "the file the caller's message is recorded into"},
          {"--choices", "LIST", "mailbox choices, comma-separated: 1,2 or 11,12,#"},
          {"--max-length", "S", "longest message in seconds (default 0: no limit)"},
          {"--pause", "S", "seconds to wait for a choice after the greeting (default 0)"},
          {"--special", "N", "option bits of the session (default 0)"},
          {"--first-calling", "DIGITS", "dial these digits first and play to the callee"},
          kToken,
          kWait,
          kWaitTimeout}},
        {"record",
         "<serial> <file>",
         2,
         2,
         "record the call in progress on a line",
         "Plays --pre, records into <file> until 'kalctl stop-record' or the call ends,\n"
         "then plays --post.",
         {{"--pre", "F", "announcement played before recording"},
          {"--post", "F", "announcement played after recording"},
          {"--flags", "N", "recording flags: 1 appends after a beep, 2 stops on more events"},
          kToken,
          kWait,
          kWaitTimeout}},
        {"stop-record", "<serial>", 1, 1, "stop the recording on a line", "", {}},
        {"script",
         "<serial>",
         1,
         1,
         "offer a touch-tone menu of scripts on a call and answer them",
         "Beeps on the call in progress and lets the caller type a code ended by #.\n"
         "Each code runs a script here, in kalctl: a code with an audio file is\n"
         "answered with that file, which the caller hears; a code without one answers\n"
         "nothing. Then the menu is offered again, five times at most. The codes come\n"
         "from --codes (their files from --responses, in the same order), from\n"
         "--answer CODE=FILE and from the files CODE.raw in --answers DIR.\n"
         "The daemon deletes the audio it has played, so kalctl hands it a fresh copy\n"
         "each time (in /var/tmp/kalctl-UID, under KAL_ROOT when that is set).\n"
         "kalctl runs until the session ends: the caller hangs up, types no code for\n"
         "15 seconds or has had the session's last script (the pre-picked one, or the\n"
         "fifth); kalctl asks the daemon every few seconds whether it still runs.\n"
         "It also stops at an extension picked up, a failure the daemon reports, or\n"
         "when --idle or --timeout pass.",
         {{"--codes", "LIST", "the menu's codes, comma-separated: 1,2,42 (or 1#,2#,42#)"},
          {"--responses", "LIST",
           "audio files answering the codes of --codes in order; an empty entry answers "
           "nothing"},
          {"--answer", "CODE=FILE", "answer CODE with FILE (repeatable)"},
          {"--answers", "DIR", "answer each code CODE with DIR/CODE.raw"},
          {"--prepick", "CODE", "run this code's script once, at once, without asking"},
          {"--idle", "S", "end when the daemon has asked for no script for S seconds"},
          kSessionToken,
          {"--timeout", "S", "give up after S seconds"}}},
        {"vmcheck",
         "<serial>",
         1,
         1,
         "let a caller hear and sort the messages in a folder",
         "Plays --greeting on the line (answering it if it rings). The caller picks a\n"
         "stream: 1 the unheard messages (the files in DIR), 2 the saved ones\n"
         "(DIR/saved), 3 the call log (DIR/calllog), each in name order. After each\n"
         "message --inter-greeting plays; the caller presses 1 to hear the message\n"
         "again, 2 to save it (an unheard one moves to DIR/saved), 3 to delete it, #\n"
         "to leave it as it is, * to start over. When a stream has no more messages\n"
         "the caller is back at the main menu, hearing --no-more when given.\n"
         "The daemon deletes each message and main greeting it is given, so kalctl\n"
         "hands it fresh copies (in /var/tmp/kalctl-UID, under KAL_ROOT when that is\n"
         "set): only the caller's 3 deletes a file of yours.\n"
         "The daemon does not tell clients when a remote check ends. kalctl stops at\n"
         "the exchange's busy or dial tone after the caller hangs up, an extension\n"
         "picked up, or a failure the daemon reports; else once the session has asked\n"
         "for nothing for longer than a caller who presses nothing can keep it going\n"
         "(seven rounds of its menu), or as --idle or --timeout say.",
         {{"--greeting", "F", "the main menu, played first"},
          {"--inter-greeting", "F", "the menu played after each message"},
          {"--messages", "DIR", "the folder of messages"},
          {"--no-more", "F", "the main menu played once a stream has no more messages"},
          {"--special", "N", "nonzero: short tones (default 0)"},
          {"--idle", "S", "end when the daemon has asked for nothing for S seconds"},
          kSessionToken,
          {"--timeout", "S", "give up after S seconds"}}},
        {"prefs",
         "[key=value ...]",
         0,
         SIZE_MAX,
         "show or change the line preferences",
         "Without arguments, prints them. Each key=value sets one (true/false, integers\n"
         "and real numbers are sent as such, anything else as text), keeping the others.\n"
         "The daemon reads them when it starts.",
         {{"--unset", "KEY", "remove KEY (repeatable)"},
          {"--replace", nullptr, "drop every preference not given"}}},
        {"debug-level",
         "<0-8|name>",
         1,
         1,
         "set the log level of the daemon, its line monitors and its clients",
         "Levels: 0 EMERG, 1 ALERT, 2 CRIT, 3 ERR, 4 WARN, 5 NOTICE, 6 INFO, 7 DEBUG,\n"
         "8 DEVEL.",
         {{"--write", nullptr, "also keep it for the next start (the debuglevel file)"}}},
        {"rescan", "", 0, 0, "make the daemon look for adapters again", "", {}},
        {"send",
         "<name> [key=value ...]",
         1,
         SIZE_MAX,
         "send a notification to every client subscribed to <name>",
         "",
         {{"--object", "TEXT", "the notification's object (default: none)"}}},
    };
    static const std::vector<CommandDescription> all = [] {
        auto out = table;
        for (auto& command : answer_command_descriptions())
            out.push_back(std::move(command));
        return out;
    }();
    return all;
}

const CommandDescription* find_command(const std::string& name) {
    for (const auto& desc : commands())
        if (name == desc.name)
            return &desc;
    return nullptr;
}

std::optional<std::string> Invocation::value(const std::string& option) const {
    auto it = options.find(option);
    if (it == options.end() || it->second.empty())
        return std::nullopt;
    return it->second.back();
}

namespace {

// The global options that take a value, and where it goes.
struct GlobalOptionField {
    const char* name;
    std::string GlobalOptions::*field;
};
const GlobalOptionField kGlobalOptionFields[] = {
    {"--app", &GlobalOptions::application},
    {"--vendor", &GlobalOptions::vendor},
    {"--protocol", &GlobalOptions::protocolVersion},
    {"--bus", &GlobalOptions::busAddress},
};

// Splits "--opt=value".
std::pair<std::string, std::optional<std::string>> split_option(const std::string& arg) {
    const auto eq = arg.find('=');
    if (eq == std::string::npos)
        return {arg, std::nullopt};
    return {arg.substr(0, eq), arg.substr(eq + 1)};
}

bool is_option(const std::string& arg) {
    return arg.size() > 1 && arg[0] == '-';
}

// `text` broken at blanks into lines of at most 79 columns, every line but
// the first indented by `indent` (the first continues what is already there).
std::string wrap(const std::string& text, size_t indent) {
    constexpr size_t kWidth = 79;
    std::string out;
    size_t column = indent;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find(' ', at);
        if (end == std::string::npos)
            end = text.size();
        const std::string word = text.substr(at, end - at);
        if (column > indent && column + 1 + word.size() > kWidth) {
            out += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (column > indent) {
            out += ' ';
            ++column;
        }
        out += word;
        column += word.size();
        at = end + 1;
    }
    return out;
}

}  // namespace

Invocation parse_command_line(const std::vector<std::string>& argv) {
    Invocation inv;
    size_t i = 0;

    // Global options, up to the command.
    for (; i < argv.size() && is_option(argv[i]); ++i) {
        auto [name, inline_value] = split_option(argv[i]);
        if (name == "--help" || name == "-h") {
            inv.help = true;
            continue;
        }
        if (name == "--version") {
            inv.version = true;
            continue;
        }
        const GlobalOptionField* desc = nullptr;
        for (const auto& g : kGlobalOptionFields)
            if (name == g.name)
                desc = &g;
        if (!desc)
            throw UsageError("", "unknown option '" + name + "'");
        if (!inline_value) {
            if (i + 1 >= argv.size())
                throw UsageError("", name + " needs a value");
            inline_value = argv[++i];
        }
        inv.global.*(desc->field) = *inline_value;
    }
    if (i >= argv.size()) {
        if (!inv.help && !inv.version)
            throw UsageError("", "no command given");
        return inv;
    }

    inv.command = argv[i++];
    if (inv.command == "help") {
        // "kalctl help dial" is "kalctl dial --help".
        inv.help = true;
        inv.command = i < argv.size() ? argv[i] : "";
        if (!inv.command.empty() && !find_command(inv.command))
            throw UsageError("", "unknown command '" + inv.command + "'");
        return inv;
    }
    const CommandDescription* desc = find_command(inv.command);
    if (!desc)
        throw UsageError("", "unknown command '" + inv.command + "'");

    bool options_done = false;
    for (; i < argv.size(); ++i) {
        const std::string& arg = argv[i];
        if (options_done || !is_option(arg)) {
            inv.args.push_back(arg);
            continue;
        }
        if (arg == "--") {
            options_done = true;
            continue;
        }
        auto [name, inline_value] = split_option(arg);
        if (name == "--help" || name == "-h") {
            inv.help = true;
            continue;
        }
        const OptionDescription* opt = nullptr;
        for (const auto& o : desc->options)
            if (name == o.name)
                opt = &o;
        if (!opt)
            throw UsageError(inv.command, "unknown option '" + name + "'");
        if (!opt->arg) {
            if (inline_value)
                throw UsageError(inv.command, name + " takes no value");
            inv.options[name].emplace_back();
            continue;
        }
        if (!inline_value) {
            if (i + 1 >= argv.size())
                throw UsageError(inv.command, name + " needs a value (" + opt->arg + ")");
            inline_value = argv[++i];
        }
        inv.options[name].push_back(*inline_value);
    }
    if (inv.help)
        return inv;
    if (inv.args.size() < desc->minArgs)
        throw UsageError(inv.command, std::string("missing arguments: ") + desc->usage);
    if (inv.args.size() > desc->maxArgs)
        throw UsageError(inv.command, "too many arguments (usage: kalctl " + inv.command + " " +
                                          desc->usage + ")");
    return inv;
}

std::string global_help() {
    std::string out =
        "Usage: kalctl [global options] <command> [arguments] [options]\n"
        "\n"
        "Talks to kaldevicemaster, the telephone-line adapter daemon, on the system bus.\n"
        "\n"
        "Commands:\n";
    for (const auto& desc : commands()) {
        std::string left = std::string("  ") + desc.name;
        if (left.size() < 16)
            left.resize(16, ' ');
        else
            left += ' ';
        out += left + wrap(desc.summary, 16) + "\n";
    }
    out += "\nGlobal options:\n";
    for (const auto& o : global_options()) {
        std::string left = std::string("  ") + o.name + (o.arg ? std::string(" ") + o.arg : "");
        left.resize(std::max<size_t>(left.size() + 1, 18), ' ');
        out += left + wrap(o.help, 18) + "\n";
    }
    out += std::string("\n") + global_help_epilogue();
    return out;
}

const std::vector<OptionDescription>& global_options() {
    static const std::vector<OptionDescription> table = {
        {"--app", "NAME", "the application name we register as (default kalctl)"},
        {"--vendor", "NAME", "the vendor we register as (default com.orvane)"},
        {"--protocol", "V", "the protocol version we register with"},
        {"--bus", "ADDRESS", "a D-Bus address instead of the system bus"},
        {"--help", nullptr, "this text; 'kalctl <command> --help' tells more"},
        {"--version", nullptr, "kalctl's version"},
    };
    return table;
}

const char* global_help_epilogue() {
    return "DBUS_SYSTEM_BUS_ADDRESS, when set, names the system bus. Only root and members\n"
           "of the group kal may talk to the daemon.\n"
           "\n"
           "Exit status: 0 done, 1 the daemon refused or the request failed, 2 a mistake on\n"
           "the command line, 3 the daemon could not be reached.\n";
}

std::string summary_sentence(const CommandDescription& desc) {
    std::string summary = desc.summary;
    summary[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(summary[0])));
    return summary + ".";
}

std::string command_help(const CommandDescription& desc) {
    std::string out = std::string("Usage: kalctl ") + desc.name;
    if (*desc.usage)
        out += std::string(" ") + desc.usage;
    if (!desc.options.empty())
        out += " [options]";
    out += "\n\n";
    out += summary_sentence(desc) + "\n";
    if (*desc.details)
        out += std::string(desc.details) + "\n";
    if (!desc.options.empty()) {
        out += "\nOptions:\n";
        for (const auto& o : desc.options) {
            std::string left = std::string("  ") + o.name + (o.arg ? std::string(" ") + o.arg : "");
            if (left.size() < 24)
                left.resize(24, ' ');
            else
                left += "\n" + std::string(24, ' ');
            out += left + wrap(o.help, 24) + "\n";
        }
    }
    return out;
}

int32_t parse_int(const std::string& command, const std::string& what, const std::string& text,
                  int64_t min, int64_t max) {
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno == ERANGE || v < min || v > max)
        throw UsageError(command, what + " must be a whole number from " + std::to_string(min) +
                                      " to " + std::to_string(max) + ", not '" + text + "'");
    return static_cast<int32_t>(v);
}

std::vector<std::string> parse_choices(const std::string& command, const std::string& text) {
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        std::string choice = text.substr(start, comma == std::string::npos ? comma : comma - start);
        if (choice.empty())
            throw UsageError(command, "empty mailbox choice in '" + text + "'");
        for (char c : choice)
            if (!std::isdigit(static_cast<unsigned char>(c)) && c != '*' && c != '#')
                throw UsageError(
                    command, "mailbox choice '" + choice + "' may hold only the keys 0-9, * and #");
        out.push_back(std::move(choice));
        if (comma == std::string::npos)
            return out;
        start = comma + 1;
    }
}

Value parse_value(const std::string& text) {
    if (text == "true")
        return Value(true);
    if (text == "false")
        return Value(false);
    if (!text.empty()) {
        errno = 0;
        char* end = nullptr;
        const long long i = std::strtoll(text.c_str(), &end, 10);
        if (*end == '\0' && errno == 0 && i >= INT32_MIN && i <= INT32_MAX)
            return Value(static_cast<int32_t>(i));
        if (*end == '\0' && errno == 0)
            return Value(static_cast<int64_t>(i));
        errno = 0;
        const double d = std::strtod(text.c_str(), &end);
        // Only plain decimals: "nan" or "inf" typed as a preference is meant as text.
        const bool numeric = std::isdigit(static_cast<unsigned char>(text.back()));
        if (*end == '\0' && errno == 0 && numeric)
            return Value(d);
    }
    return Value(text);
}

ValueDict parse_assignments(const std::string& command, const std::vector<std::string>& pairs) {
    ValueDict out;
    for (const auto& pair : pairs) {
        const auto eq = pair.find('=');
        if (eq == std::string::npos || eq == 0)
            throw UsageError(command, "expected key=value, not '" + pair + "'");
        out[pair.substr(0, eq)] = parse_value(pair.substr(eq + 1));
    }
    return out;
}

std::string absolute(const std::string& path) {
    if (path.empty())
        return path;
    return std::filesystem::absolute(path).lexically_normal().string();
}

int32_t parse_debug_level(const std::string& command, const std::string& text) {
    for (unsigned level = KAL_EMERG; level <= KAL_DEVEL; ++level)
        if (strcasecmp(text.c_str(), kallog_level_name(level)) == 0)
            return static_cast<int32_t>(level);
    return parse_int(command, "the level", text, KAL_EMERG, KAL_DEVEL);
}

}  // namespace kal::kalctl
