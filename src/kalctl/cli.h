#pragma once

// kalctl's command line: the commands it knows, their arguments and options,
// the help texts, and the parsing of values a person types. No D-Bus here,
// so all of it can be checked without a daemon.

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/value.h"

namespace kal::kalctl {

// A mistake on the command line: kalctl prints it with a hint and exits 2.
class UsageError : public std::runtime_error {
  public:
    UsageError(std::string command, const std::string& message)
        : std::runtime_error(message), command_(std::move(command)) {}
    // The command it concerns, "" for the global part.
    const std::string& command() const { return command_; }

  private:
    std::string command_;
};

// A request that failed, or a file that could not be used, already worded
// for the user: kalctl prints it and exits 1.
class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string& message) : std::runtime_error(message) {}
};

struct OptionDescription {
    const char* name;  // "--token"
    const char* arg;   // "T", or nullptr for a flag
    const char* help;
};

struct CommandDescription {
    const char* name;   // "dial"
    const char* usage;  // "<serial|any> <digits>"
    size_t minArgs;
    size_t maxArgs;  // SIZE_MAX: any number
    const char* summary;
    const char* details;  // more text for --help, may be ""
    std::vector<OptionDescription> options;
};

// Every command, in the order help lists them.
const std::vector<CommandDescription>& commands();
const CommandDescription* find_command(const std::string& name);

// Options that come before the command, --help and --version included, in
// the order help lists them.
const std::vector<OptionDescription>& global_options();

// The values of the options that come before the command.
struct GlobalOptions {
    std::string application = "kalctl";
    std::string vendor = "com.orvane";
    std::string protocolVersion;  // "" = the library's
    std::string busAddress;       // "" = the system bus
};

struct Invocation {
    GlobalOptions global;
    std::string command;  // "" with help or version set
    std::vector<std::string> args;
    // Each given option's values, in order; a flag has one "" per use.
    std::map<std::string, std::vector<std::string>> options;
    bool help = false;     // --help (of the command, or of kalctl)
    bool version = false;  // --version

    bool has(const std::string& option) const { return options.count(option) != 0; }
    // The last value of an option, or nullopt when it was not given.
    std::optional<std::string> value(const std::string& option) const;
};

// Parses argv (without argv[0]). Options may come anywhere after the
// command, as "--opt value" or "--opt=value"; "--" ends them. Throws
// UsageError.
Invocation parse_command_line(const std::vector<std::string>& argv);

std::string global_help();
std::string command_help(const CommandDescription& desc);
// The text after the command list of global_help(): environment, access,
// exit status. The man page shows the same paragraphs.
const char* global_help_epilogue();
// A command's summary as the first sentence of its help: "Dial digits on a line."
std::string summary_sentence(const CommandDescription& desc);

// Value parsing with the option's name in the message. Throw UsageError.
int32_t parse_int(const std::string& command, const std::string& what, const std::string& text,
                  int64_t min, int64_t max);
// "1,2,#9" -> {"1", "2", "#9"}; every choice made of 0-9, * and #.
std::vector<std::string> parse_choices(const std::string& command, const std::string& text);
// A preference or user-info value as typed: true/false, an integer, a real
// number, or else the text itself.
Value parse_value(const std::string& text);
// "key=value" pairs into a dictionary.
ValueDict parse_assignments(const std::string& command, const std::vector<std::string>& pairs);
// The daemon runs elsewhere: a relative path would be read from its
// working directory, not ours. "" stays "".
std::string absolute(const std::string& path);
// A debug level: 0-8 or a level name ("debug", "DEVEL").
int32_t parse_debug_level(const std::string& command, const std::string& text);

}  // namespace kal::kalctl
