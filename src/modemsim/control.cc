#include "modemsim/control.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "simctl/text.h"

namespace kal::modemsim {

namespace {

using simctl::ControlReply;
using simctl::error;
using simctl::ok;

constexpr double kDefaultWaitSeconds = 10;

struct Context {
    ControlContext& ctx;
    std::string_view args;
    Clock::time_point now;
    Modem& modem() { return ctx.modem; }
};

std::optional<bool> on_off(std::string_view v) {
    std::string s = simctl::lower(v);
    if (s == "on" || s == "1" || s == "yes")
        return true;
    if (s == "off" || s == "0" || s == "no")
        return false;
    return std::nullopt;
}

std::optional<std::string> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// 1-based index from the arguments, or the last one.
std::optional<size_t> pick(std::string_view arg, size_t count) {
    if (count == 0)
        return std::nullopt;
    if (arg.empty())
        return count - 1;
    auto n = simctl::parse_long(arg);
    if (!n || *n < 1 || static_cast<size_t>(*n) > count)
        return std::nullopt;
    return static_cast<size_t>(*n - 1);
}

std::string play_line(const Play& p, size_t i) {
    return "play " + std::to_string(i + 1) + " bytes=" + std::to_string(p.bytes.size()) +
           " discarded=" + std::to_string(p.discarded) + " ended=" + (p.ended ? "yes" : "no");
}

// A 400 Hz tone around 128, the recordings' silence.
std::string tone(double seconds) {
    std::string out;
    auto n = static_cast<size_t>(seconds * kBytesPerSecond);
    static const unsigned char cycle[20] = {128, 167, 202, 230, 248, 255, 248, 230, 202, 167,
                                            128, 89,  54,  26,  8,   1,   8,   26,  54,  89};
    for (size_t i = 0; i < n; ++i)
        out += static_cast<char>(cycle[i % 20]);
    return out;
}

const std::vector<std::string> kHelp = {
    "ring                       RING, then the caller ID set before (once)",
    "callerid <number> [name]   caller ID for the next ring",
    "callerid private|unavailable|none   P, O, or no caller-ID block",
    "digits <keys>              one DTMF report per key of 0-9 * # A-D",
    "event <c>                  <DLE><c>: any character or 0xNN",
    "tone fax|dial|busy|data|answer|silence|quiet|loop   c d b e a s q l",
    "handset off|on             H or h (the local handset)",
    "text <words>               \\r\\n<words>\\r\\n, e.g. text NO CARRIER",
    "raw <hex>                  bytes to the host as they are",
    "audio <file>               what the next +VRX streams (then silence)",
    "audio-hex <hex> | audio-tone <seconds>   the same from hex or a tone",
    "log                        AT commands, stream ends, ignored input",
    "wait-command <prefix> [s]  wait up to s seconds (10) for a log entry",
    "plays                      the +VTX streams received",
    "played [n]                 hex of the bytes of play n (default: last)",
    "played-to <n> <file>       writes the bytes of play n to a file",
    "recorded [n]               hex of the audio +VRX n sent",
    "status                     hook, class, format, state, quirks",
    "clear                      forget the log, plays and records",
    "set <quirk> <value>        profile conexant|usr, vls L1,L2.., vsm-error,",
    "                           no-callerid, vcon, mute, bracket, nmbr-spaces,",
    "                           dle-sub on|off; mute-at <prefix>;",
    "                           dtmf-repeat <n>; speed <x>",
    "vanish                     close the port like a USB unplug",
};

const simctl::HandlerTable<Context>& handlers() {
    static const simctl::HandlerTable<Context> table = {
        {"ring",
         [](Context& c) {
             c.modem().ring(c.now);
             return ok("sent RING");
         }},
        {"callerid",
         [](Context& c) {
             std::string_view rest = c.args;
             std::string number(simctl::next_word(rest));
             std::string what = simctl::lower(number);
             if (number.empty())
                 return error("callerid needs a number, private, unavailable or none");
             if (what == "none") {
                 c.modem().set_caller_id(std::nullopt);
                 return ok("no caller ID");
             }
             CallerId cid;
             if (what == "private" || what == "unavailable") {
                 cid.number = cid.name = what == "private" ? "P" : "O";
             } else {
                 cid.number = number;
                 cid.name = std::string(rest);
             }
             c.modem().set_caller_id(cid);
             return ok("caller ID for the next ring: NMBR " + cid.number + " NAME " + cid.name);
         }},
        {"digits",
         [](Context& c) {
             if (c.args.empty())
                 return error("digits needs keys, e.g. digits 12#");
             for (char d : c.args)
                 if (!strchr("0123456789*#ABCD", d))
                     return error("not a touch-tone key: '" + simctl::char_text(d) + "'");
             for (char d : c.args)
                 c.modem().send_digit(d);
             return ok("sent digits " + std::string(c.args));
         }},
        {"event",
         [](Context& c) {
             auto ch = simctl::parse_char(c.args);
             if (!ch)
                 return error("event needs one character (or 0xNN), e.g. event b");
             c.modem().send_event(*ch);
             return ok("sent <DLE>" + simctl::char_text(*ch));
         }},
        {"tone",
         [](Context& c) {
             static const std::map<std::string, char, std::less<>> tones = {
                 {"fax", 'c'},    {"dial", 'd'},    {"busy", 'b'},  {"data", 'e'},
                 {"answer", 'a'}, {"silence", 's'}, {"quiet", 'q'}, {"loop", 'l'}};
             auto it = tones.find(simctl::lower(c.args));
             if (it == tones.end())
                 return error("tone needs fax, dial, busy, data, answer, silence, quiet or loop");
             c.modem().send_event(it->second);
             return ok(std::string("sent <DLE>") + it->second);
         }},
        {"handset",
         [](Context& c) {
             std::string a = simctl::lower(c.args);
             if (a != "off" && a != "on")
                 return error("handset needs off or on");
             c.modem().send_event(a == "off" ? 'H' : 'h');
             return ok(a == "off" ? "sent <DLE>H" : "sent <DLE>h");
         }},
        {"text",
         [](Context& c) {
             c.modem().send_text(std::string(c.args));
             return ok("sent text");
         }},
        {"raw",
         [](Context& c) {
             auto bytes = simctl::from_hex(c.args);
             if (!bytes || bytes->empty())
                 return error("raw needs hex bytes, e.g. raw 1062");
             c.modem().send_raw(*bytes);
             return ok("sent " + std::to_string(bytes->size()) + " raw bytes");
         }},
        {"audio",
         [](Context& c) {
             auto bytes = read_file(std::string(c.args));
             if (!bytes)
                 return error("cannot read " + std::string(c.args));
             c.modem().set_record_source(*bytes);
             return ok("recording source of " + std::to_string(bytes->size()) + " bytes");
         }},
        {"audio-hex",
         [](Context& c) {
             auto bytes = simctl::from_hex(c.args);
             if (!bytes)
                 return error("audio-hex needs hex bytes");
             c.modem().set_record_source(*bytes);
             return ok("recording source of " + std::to_string(bytes->size()) + " bytes");
         }},
        {"audio-tone",
         [](Context& c) {
             auto s = simctl::parse_seconds(c.args);
             if (!s || *s > 3600)
                 return error("audio-tone needs seconds, e.g. 1.5");
             std::string t = tone(*s);
             c.modem().set_record_source(t);
             return ok("recording source of " + std::to_string(t.size()) + " bytes");
         }},
        {"log", [](Context& c) { return simctl::list("lines", c.modem().log()); }},
        {"wait-command",
         [](Context& c) {
             std::string_view rest = c.args;
             std::string prefix(simctl::next_word(rest));
             double seconds = kDefaultWaitSeconds;
             if (!rest.empty()) {
                 auto s = simctl::parse_seconds(simctl::next_word(rest));
                 if (!s || !rest.empty())
                     return error("wait-command timeout must be seconds, e.g. 2.5");
                 seconds = *s;
             }
             Modem* m = &c.modem();
             return simctl::wait_for(
                 [m, prefix]() -> std::optional<std::string> {
                     if (auto e = m->take_log(prefix))
                         return "ok " + *e;
                     return std::nullopt;
                 },
                 seconds, "error timed out waiting for " + (prefix.empty() ? "anything" : prefix));
         }},
        {"plays",
         [](Context& c) {
             std::vector<std::string> lines;
             for (size_t i = 0; i < c.modem().plays().size(); ++i)
                 lines.push_back(play_line(c.modem().plays()[i], i));
             return simctl::list("lines", lines);
         }},
        {"played",
         [](Context& c) {
             auto i = pick(c.args, c.modem().plays().size());
             if (!i)
                 return error("no such play");
             return ok(simctl::to_hex(c.modem().plays()[*i].bytes));
         }},
        {"played-to",
         [](Context& c) {
             std::string_view rest = c.args;
             auto i = pick(simctl::next_word(rest), c.modem().plays().size());
             if (!i || rest.empty())
                 return error("played-to needs a play number and a file");
             std::ofstream out(std::string(rest), std::ios::binary | std::ios::trunc);
             const std::string& b = c.modem().plays()[*i].bytes;
             out.write(b.data(), static_cast<std::streamsize>(b.size()));
             if (!out)
                 return error("cannot write " + std::string(rest));
             return ok("wrote " + std::to_string(b.size()) + " bytes");
         }},
        {"recorded",
         [](Context& c) {
             auto i = pick(c.args, c.modem().records().size());
             if (!i)
                 return error("no such recording");
             return ok(simctl::to_hex(c.modem().records()[*i]));
         }},
        {"status", [](Context& c) { return ok(c.modem().status_text()); }},
        {"clear",
         [](Context& c) {
             c.modem().clear_logs();
             return ok("cleared");
         }},
        {"set",
         [](Context& c) {
             std::string_view rest = c.args;
             std::string_view name = simctl::next_word(rest);
             std::string why = apply_quirk(c.modem(), name, rest);
             if (!why.empty())
                 return error(why);
             return ok(std::string(name) + " " + std::string(rest));
         }},
        {"vanish",
         [](Context& c) {
             c.ctx.vanish();
             return ok("the port is gone");
         }},
        {"help", [](Context&) { return simctl::help(kHelp); }},
    };
    return table;
}

}  // namespace

std::string apply_quirk(Modem& modem, std::string_view name, std::string_view value) {
    Quirks& q = modem.quirks();
    const std::string n = simctl::lower(name);
    if (n == "profile") {
        auto p = profile_from_name(value);
        if (!p)
            return "profile is conexant or usr";
        q.vsm = *p;
        return {};
    }
    if (n == "vls") {
        std::vector<std::string> labels;
        std::stringstream in{std::string(value)};
        std::string label;
        while (std::getline(in, label, ','))
            labels.push_back(label);
        if (labels.empty())
            return "vls needs labels, e.g. ,T,L,LT";
        q.vls = labels;
        return {};
    }
    if (n == "mute-at") {
        q.mute_at = std::string(value);
        return {};
    }
    if (n == "dtmf-repeat") {
        auto r = simctl::parse_long(value);
        if (!r || *r < 1 || *r > 50)
            return "dtmf-repeat is 1 to 50";
        q.dtmf_repeat = static_cast<int>(*r);
        return {};
    }
    if (n == "speed") {
        auto s = simctl::parse_seconds(value);
        if (!s || *s <= 0)
            return "speed is a positive number";
        modem.set_speed(*s);
        return {};
    }
    static const std::map<std::string, bool Quirks::*, std::less<>> flags = {
        {"vsm-error", &Quirks::vsm_error},
        {"no-callerid", &Quirks::no_callerid},
        {"vcon", &Quirks::vcon},
        {"mute", &Quirks::mute},
        {"bracket", &Quirks::dtmf_bracket},
        {"nmbr-spaces", &Quirks::nmbr_spaces},
        {"dle-sub", &Quirks::dle_sub}};
    auto it = flags.find(n);
    if (it == flags.end())
        return "unknown quirk '" + n + "' (try help)";
    auto v = on_off(value);
    if (!v)
        return n + " is on or off";
    q.*(it->second) = *v;
    if (n == "mute")
        modem.set_muted(*v);
    return {};
}

simctl::ControlReply run_control(ControlContext& ctx, std::string_view line,
                                 Clock::time_point now) {
    return simctl::dispatch_table(line, handlers(), [&](std::string_view args) {
        return Context{ctx, args, now};
    });
}

}  // namespace kal::modemsim
