#include "answer/config.h"

#include <ini.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/paths.h"

namespace kal::answer {

namespace {

struct Entry {
    std::string section;
    std::string key;
    std::string value;
    int line;
};

// inih hands each line to the handler right after reading it through our
// reader, so counting lines in the reader gives every entry its line.
struct Reading {
    const std::string* text;
    size_t at = 0;
    int line = 0;
    int tooLong = 0;  // the line inih's fixed buffer cannot hold, if any
    std::vector<Entry> entries;
};

char* read_line(char* buf, int size, void* stream) {
    auto* r = static_cast<Reading*>(stream);
    if (r->at >= r->text->size() || size < 2)
        return nullptr;
    const size_t nl = r->text->find('\n', r->at);
    const size_t end = nl == std::string::npos ? r->text->size() : nl + 1;
    if (end - r->at > static_cast<size_t>(size - 1)) {
        // inih would cut it and read the rest as a line of its own.
        r->tooLong = r->line + 1;
        return nullptr;
    }
    const size_t n = end - r->at;
    std::memcpy(buf, r->text->data() + r->at, n);
    buf[n] = '\0';
    r->at += n;
    if (n > 0 && buf[n - 1] == '\n')
        ++r->line;
    else if (r->at >= r->text->size())
        ++r->line;
    return buf;
}

int on_entry(void* user, const char* section, const char* key, const char* value) {
    auto* r = static_cast<Reading*>(user);
    r->entries.push_back(Entry{section, key, value ? value : "", r->line});
    return 1;
}

std::string lower(std::string s) {
    for (auto& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(const std::string& s) {
    const size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos)
        return "";
    return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

std::vector<std::string> split_list(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream ss(text);
    std::string item;
    while (std::getline(ss, item, ','))
        if (!trim(item).empty())
            out.push_back(trim(item));
    return out;
}

// Turns a value into a setting, or throws a message without the place
// (added by the caller).
class Values {
  public:
    static int integer(const std::string& v, int min, int max) {
        size_t used = 0;
        long n = 0;
        try {
            n = std::stol(v, &used);
        } catch (const std::exception&) {
            used = 0;
        }
        if (used == 0 || used != v.size())
            throw ConfigError("'" + v + "' is not a whole number");
        if (n < min || n > max)
            throw ConfigError(v + " is out of range (" + std::to_string(min) + " to " +
                              std::to_string(max) + ")");
        return static_cast<int>(n);
    }
    static bool boolean(const std::string& v) {
        const std::string l = lower(v);
        if (l == "yes" || l == "on" || l == "true" || l == "1")
            return true;
        if (l == "no" || l == "off" || l == "false" || l == "0")
            return false;
        throw ConfigError("'" + v + "' is neither yes nor no");
    }
    static std::string keys(const std::string& v, size_t max) {
        if (v.empty() || v.size() > max)
            throw ConfigError("'" + v + "' must be 1 to " + std::to_string(max) + " keys");
        for (char c : v)
            if (!std::isdigit(static_cast<unsigned char>(c)) && c != '*' && c != '#')
                throw ConfigError("'" + v + "' may hold only the keys 0-9, * and #");
        return v;
    }
    static int minute_of_day(const std::string& v) {
        int h = -1, m = -1;
        char extra = 0;
        if (std::sscanf(v.c_str(), "%d:%d%c", &h, &m, &extra) != 2 || h < 0 || h > 23 || m < 0 ||
            m > 59)
            throw ConfigError("'" + v + "' is not a time of day (HH:MM)");
        return h * 60 + m;
    }
    static QuietHours quiet_hours(const std::string& v) {
        const size_t dash = v.find('-');
        if (dash == std::string::npos)
            throw ConfigError("'" + v + "' is not a span of hours like 22:00-07:00");
        return QuietHours{minute_of_day(trim(v.substr(0, dash))),
                          minute_of_day(trim(v.substr(dash + 1)))};
    }
    static std::string number(const std::string& v) {
        if (v.empty())
            throw ConfigError("no number given");
        for (char c : v)
            if (!std::isdigit(static_cast<unsigned char>(c)) && c != '+' && c != '*' && c != '#' &&
                c != ',')
                throw ConfigError("'" + v + "' is not a telephone number");
        return v;
    }
};

struct Parser {
    std::string name;
    const AudioCheck& check;

    [[noreturn]] void fail(const Entry& e, const std::string& what) const {
        throw ConfigError(name + ":" + std::to_string(e.line) + ": key '" + e.key + "' in [" +
                          e.section + "]: " + what);
    }

    std::string audio(const Entry& e) const {
        if (e.value.empty())
            return "";
        if (e.value[0] != '/')
            fail(e, "'" + e.value + "' must be an absolute path");
        if (check)
            check(e.value);
        return e.value;
    }

    void apply_line(LineConfig& c, const Entry& e) const {
        const std::string& v = e.value;
        const std::string& k = e.key;
        if (k == "answer")
            c.answer = Values::boolean(v);
        else if (k == "rings")
            c.rings = Values::integer(v, 1, 20);
        else if (k == "toll_saver_rings")
            c.tollSaverRings = Values::integer(v, 0, 20);
        else if (k == "greeting")
            c.greeting = audio(e);
        else if (k == "default_mailbox")
            c.defaultMailbox = Values::integer(v, 1, 99);
        else if (k == "max_message_length")
            c.maxMessageLength = Values::integer(v, 1, 3600);
        else if (k == "min_message_length")
            c.minMessageLength = Values::integer(v, 0, 60);
        else if (k == "trim_silence")
            c.trimSilence = Values::boolean(v);
        else if (k == "remote_check_digit")
            c.remoteDigit = v.empty() ? "" : Values::keys(v, 1);
        else if (k == "fax")
            c.fax = Values::boolean(v);
        else if (k == "outbound_delivery")
            c.outboundDelivery = Values::boolean(v);
        else if (k == "outbound_number")
            c.outboundNumber = v.empty() ? "" : Values::number(v);
        else if (k == "quiet_hours")
            c.quietHours = v.empty() ? std::nullopt : std::optional(Values::quiet_hours(v));
        else if (k == "quiet_rings")
            c.quietRings = Values::integer(v, 1, 20);
        else if (k == "block")
            c.blocked = split_list(v);
        else if (k == "announce_command")
            c.announceCommand = v;
        else
            throw ConfigError("unknown key");
    }

    void apply_mailbox(MailboxConfig& m, const Entry& e) const {
        const std::string& k = e.key;
        static const std::pair<const char*, GreetingKind> kinds[] = {
            {"greeting", GreetingKind::Unavailable},
            {"unavailable_greeting", GreetingKind::Unavailable},
            {"busy_greeting", GreetingKind::Busy},
            {"temporary_greeting", GreetingKind::Temporary},
            {"name_greeting", GreetingKind::Name},
        };
        for (const auto& [key, kind] : kinds)
            if (k == key) {
                m.greetings[kind] = audio(e);
                return;
            }
        if (k == "digit") {
            m.digit = Values::keys(e.value, 1);
        } else if (k == "pin") {
            m.pin = e.value.empty() ? "" : Values::keys(e.value, 12);
            if (!m.pin.empty() && m.pin.size() < 4)
                throw ConfigError("a PIN needs at least 4 digits");
        } else if (k == "active_greeting") {
            for (auto kind : {GreetingKind::Unavailable, GreetingKind::Busy,
                              GreetingKind::Temporary, GreetingKind::Name})
                if (lower(e.value) == greeting_kind_name(kind)) {
                    m.active = kind;
                    return;
                }
            throw ConfigError("'" + e.value + "' is not unavailable, busy, temporary or name");
        } else {
            throw ConfigError("unknown key");
        }
    }
};

}  // namespace

const char* greeting_kind_name(GreetingKind kind) {
    switch (kind) {
        case GreetingKind::Unavailable:
            return "unavailable";
        case GreetingKind::Busy:
            return "busy";
        case GreetingKind::Temporary:
            return "temporary";
        case GreetingKind::Name:
            return "name";
    }
    return "?";
}

std::string MailboxConfig::greeting() const {
    auto it = greetings.find(active);
    if (it != greetings.end() && !it->second.empty())
        return it->second;
    it = greetings.find(GreetingKind::Unavailable);
    return it == greetings.end() ? "" : it->second;
}

bool QuietHours::contains(int minute) const {
    if (start <= end)
        return minute >= start && minute < end;
    return minute >= start || minute < end;
}

bool LineConfig::blocks(const std::string& number) const {
    for (const auto& b : blocked) {
        if (lower(b) == "withheld") {
            if (number.empty())
                return true;
        } else if (!b.empty() && b.back() == '*') {
            if (!number.empty() && number.starts_with(b.substr(0, b.size() - 1)))
                return true;
        } else if (b == number) {
            return true;
        }
    }
    return false;
}

const LineConfig& Config::line(const std::string& serial) const {
    auto it = lines.find(serial);
    return it == lines.end() ? defaults : it->second;
}

const MailboxConfig* Config::mailbox(int number) const {
    auto it = mailboxes.find(number);
    return it == mailboxes.end() ? nullptr : &it->second;
}

const MailboxConfig* Config::mailbox_for_digit(const std::string& digit) const {
    for (const auto& [n, m] : mailboxes)
        if (m.digit == digit)
            return &m;
    return nullptr;
}

const MailboxConfig* Config::mailbox_for_pin(const std::string& pin) const {
    for (const auto& [n, m] : mailboxes)
        if (!m.pin.empty() && m.pin == pin)
            return &m;
    return nullptr;
}

std::string default_config_path() {
    return kal_root() + "/etc/kal-answer.conf";
}

Config parse_config(const std::string& text, const std::string& name, const AudioCheck& check) {
    Reading reading;
    reading.text = &text;
    const int rc = ini_parse_stream(read_line, &reading, on_entry, &reading);
    if (reading.tooLong)
        throw ConfigError(name + ":" + std::to_string(reading.tooLong) +
                          ": the line is too long (at most " + std::to_string(INI_MAX_LINE - 2) +
                          " characters; put a long announce_command in a script)");
    if (rc > 0)
        throw ConfigError(name + ":" + std::to_string(rc) +
                          ": not a [section] or key = value line");
    if (rc < 0)
        throw ConfigError(name + ": cannot be read");

    Parser p{name, check};
    Config config;
    config.path = name;
    const auto place = [&](const Entry& e, const auto& apply) {
        try {
            apply();
        } catch (const ConfigError& error) {
            p.fail(e, error.what());
        } catch (const std::exception& error) {
            p.fail(e, error.what());
        }
    };
    // [answer] first, wherever it stands: the line sections start from it.
    for (const auto& e : reading.entries)
        if (e.section == "answer")
            place(e, [&] { p.apply_line(config.defaults, e); });
    for (const auto& e : reading.entries) {
        if (e.section == "answer")
            continue;
        if (e.section.starts_with("line ")) {
            const std::string serial = trim(e.section.substr(5));
            auto [it, fresh] = config.lines.try_emplace(serial, config.defaults);
            place(e, [&] { p.apply_line(it->second, e); });
        } else if (e.section.starts_with("mailbox ")) {
            int number = 0;
            place(e, [&] { number = Values::integer(trim(e.section.substr(8)), 1, 99); });
            auto [it, fresh] = config.mailboxes.try_emplace(number);
            if (fresh) {
                it->second.number = number;
                it->second.digit = number < 10 ? std::to_string(number) : "";
            }
            place(e, [&] { p.apply_mailbox(it->second, e); });
        } else {
            p.fail(e, "unknown section (use [answer], [line SERIAL] or [mailbox N])");
        }
    }
    const auto ensure_mailbox = [&](int number) {
        auto [it, fresh] = config.mailboxes.try_emplace(number);
        if (fresh) {
            it->second.number = number;
            it->second.digit = number < 10 ? std::to_string(number) : "";
        }
    };
    ensure_mailbox(config.defaults.defaultMailbox);
    for (const auto& [serial, line] : config.lines)
        ensure_mailbox(line.defaultMailbox);
    // A digit that both picks a mailbox and starts the remote check, or two
    // mailboxes on one digit, would leave callers guessing.
    std::map<std::string, int> digits;
    for (const auto& [n, m] : config.mailboxes) {
        if (m.digit.empty())
            continue;
        auto [it, fresh] = digits.emplace(m.digit, n);
        if (!fresh)
            throw ConfigError(name + ": mailboxes " + std::to_string(it->second) + " and " +
                              std::to_string(n) + " both answer to digit " + m.digit);
    }
    const auto check_remote = [&](const LineConfig& line, const std::string& where) {
        if (!line.remoteDigit.empty() && digits.count(line.remoteDigit))
            throw ConfigError(name + ": " + where + ": remote_check_digit " + line.remoteDigit +
                              " is also the digit of mailbox " +
                              std::to_string(digits.at(line.remoteDigit)));
        if (line.outboundDelivery && line.outboundNumber.empty())
            throw ConfigError(name + ": " + where + ": outbound_delivery needs outbound_number");
    };
    check_remote(config.defaults, "[answer]");
    for (const auto& [serial, line] : config.lines)
        check_remote(line, "[line " + serial + "]");
    return config;
}

Config load_config(const std::string& path, const AudioCheck& check) {
    std::ifstream in(path);
    if (!in)
        throw ConfigError(path + ": cannot be read: " + std::strerror(errno));
    std::stringstream ss;
    ss << in.rdbuf();
    return parse_config(ss.str(), path, check);
}

}  // namespace kal::answer
