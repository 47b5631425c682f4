#pragma once

// kal-answer's configuration: one INI file a person edits,
// $KAL_ROOT/etc/kal-answer.conf, read with inih.
//
//     [answer]                  ; every line
//     rings = 4
//     greeting = /etc/kal-answer/greeting.wav
//     [line KL1001]             ; this line only: any key of [answer]
//     rings = 2
//     [mailbox 2]               ; mailbox 2: its digit, greetings and PIN
//     digit = 2
//     greeting = /etc/kal-answer/mailbox2.flac
//     pin = 4321
//
// Every key is checked when the file is read; a mistake is reported as
// "FILE:LINE: key 'KEY': what is wrong" and the file is refused whole, so the
// caller keeps the configuration it had.

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kal::answer {

class ConfigError : public std::runtime_error {
  public:
    explicit ConfigError(const std::string& message) : std::runtime_error(message) {}
};

// The greetings of a mailbox, as voicemail systems name them.
enum class GreetingKind { Unavailable, Busy, Temporary, Name };
const char* greeting_kind_name(GreetingKind kind);  // "unavailable", ...

struct MailboxConfig {
    int number = 1;
    std::string digit;  // what the caller presses at the main greeting
    std::map<GreetingKind, std::string> greetings;
    GreetingKind active = GreetingKind::Unavailable;
    std::string pin;  // "" : no remote check of this mailbox

    // The greeting callers hear: the active one, else the unavailable one.
    std::string greeting() const;
};

// "22:00-07:00": [start, end) in minutes after midnight; may wrap midnight.
struct QuietHours {
    int start = 0;
    int end = 0;
    bool contains(int minuteOfDay) const;
};

struct LineConfig {
    bool answer = true;          // false: this line is left alone
    int rings = 4;               // rings before answering
    int tollSaverRings = 0;      // rings when new messages wait; 0: no toll saver
    std::string greeting;        // the main greeting; "": the default mailbox's
    int defaultMailbox = 1;      // where a caller who presses nothing leaves a message
    int maxMessageLength = 120;  // seconds
    int minMessageLength = 2;    // seconds; shorter messages are dropped
    bool trimSilence = true;
    std::string remoteDigit;  // starts a remote check; "": none
    bool fax = true;          // hand fax calls to the fax machine
    bool outboundDelivery = false;
    std::string outboundNumber;
    std::optional<QuietHours> quietHours;
    int quietRings = 1;                // rings before answering in quiet hours
    std::vector<std::string> blocked;  // numbers, "PREFIX*", or "withheld"
    std::string announceCommand;       // run for each new message ("" none)

    bool blocks(const std::string& number) const;
};

struct Config {
    std::string path;
    LineConfig defaults;
    std::map<std::string, LineConfig> lines;  // by serial
    std::map<int, MailboxConfig> mailboxes;   // by number; always has the default mailbox

    const LineConfig& line(const std::string& serial) const;
    const MailboxConfig* mailbox(int number) const;
    const MailboxConfig* mailbox_for_digit(const std::string& digit) const;
    const MailboxConfig* mailbox_for_pin(const std::string& pin) const;
};

// Called for every greeting file the configuration names, to refuse one that
// cannot be used; throws (any std::exception) with the reason.
using AudioCheck = std::function<void(const std::string& path)>;

// Reads and checks `path`. Throws ConfigError naming the file, line and key.
Config load_config(const std::string& path, const AudioCheck& check = {});
// The same from text (tests); `name` stands for the file in messages.
Config parse_config(const std::string& text, const std::string& name, const AudioCheck& check = {});

// $KAL_ROOT/etc/kal-answer.conf
std::string default_config_path();

}  // namespace kal::answer
