#include "simulator/control.h"

#include <signal.h>
#include <string.h>

#include <cctype>
#include <charconv>
#include <cstdlib>
#include <functional>
#include <map>
#include <vector>

#include "lineio/protocol.h"
#include "simctl/text.h"
#include "simulator/describe.h"

namespace kal::linesim {

namespace {

constexpr double kDefaultWaitSeconds = 10;

using simctl::error;
using simctl::lower;
using simctl::next_word;
using simctl::ok;
using simctl::parse_char;
using simctl::parse_long;

ControlReply list(const char* noun, const std::vector<std::string>& lines) {
    return simctl::list(noun, lines);
}

std::string wait_timeout_reply(std::optional<char> c) {
    return "error timed out waiting for " +
           (c ? "command " + char_text(*c) : std::string("any command"));
}

struct Context {
    LineSim& sim;
    std::string_view args;
    Clock::time_point now;
};

// Sends an event and says what went out.
ControlReply sent(const std::optional<std::string>& stopped, std::string_view payload) {
    std::string text = "sent " + describe_event(payload);
    if (stopped)
        text += "; stopped audio token=" + quote(*stopped);
    return ok(text);
}

ControlReply send_event(Context& c, char ev, std::string_view rest = {}) {
    std::string payload(1, ev);
    payload.append(rest);
    return sent(c.sim.event(ev, rest, c.now), payload);
}

const char* const kHelp[] = {
    "ring                       send R (an idle line starts ringing)",
    "callerid [text]            send X with the caller-ID text",
    "digits <keys>              one # event per key of 0-9 * # A-D",
    "tone fax|dial|busy|data    send c, d, b or e",
    "offhook | onhook           handset up (P) or down (p)",
    "hook off|on                set the handset's state without an event",
    "reversal | silence | signal     send l, s or S",
    "flow on|off                send o or u",
    "event <c> [text]           send any event character (c or 0xNN)",
    "frame <hex>                send any payload, framed",
    "raw <hex>                  send bytes unframed (malformed frames)",
    "reply <token> <status> [c] send a ^ audio response by hand",
    "stop <c>                   end running audio: status 4 with c, no event",
    "finish                     end running audio now: status 3",
    "commands                   list the commands received",
    "sent                       list the messages sent",
    "wait-command [c|any] [s]   wait up to s seconds (10) for a command",
    "clear                      forget the command and message logs",
    "orders                     the orders record and where it was read",
    "status                     hook, seizure, ringing, audio, deadman",
};

const simctl::HandlerTable<Context>& handlers() {
    static const simctl::HandlerTable<Context> table = {
        {"ring", [](Context& c) { return sent(c.sim.ring(c.now), std::string(1, lm::kEvtRing)); }},
        {"callerid",
         [](Context& c) {
             if (c.args.empty())
                 return send_event(c, lm::kEvtCallerId);
             return send_event(c, lm::kEvtCallerId, std::string(c.args) + '\0');
         }},
        {"digits",
         [](Context& c) {
             if (c.args.empty())
                 return error("digits needs keys, e.g. digits 12#");
             for (char d : c.args)
                 if (!strchr("0123456789*#ABCD", d))
                     return error("not a touch-tone key: '" + char_text(d) + "'");
             std::string text;
             for (char d : c.args) {
                 auto r = send_event(c, lm::kEvtDigit, std::string(1, d));
                 text += (text.empty() ? "" : ", ") + r.text.substr(3);
             }
             return ok(text);
         }},
        {"tone",
         [](Context& c) {
             static const std::map<std::string, char, std::less<>> tones = {
                 {"fax", lm::kEvtFax},    {"c", lm::kEvtFax},     {"dial", lm::kEvtDialTone},
                 {"d", lm::kEvtDialTone}, {"busy", lm::kEvtBusy}, {"b", lm::kEvtBusy},
                 {"data", lm::kEvtData},  {"e", lm::kEvtData}};
             auto it = tones.find(lower(c.args));
             if (it == tones.end())
                 return error("tone needs fax, dial, busy or data");
             return send_event(c, it->second);
         }},
        {"offhook", [](Context& c) { return sent(c.sim.set_hook(true, true, c.now), "P"); }},
        {"onhook", [](Context& c) { return sent(c.sim.set_hook(false, true, c.now), "p"); }},
        {"hook",
         [](Context& c) {
             std::string a = lower(c.args);
             if (a != "on" && a != "off")
                 return error("hook needs on or off");
             c.sim.set_hook(a == "off", false, c.now);
             return ok("handset " + a + " hook (nothing sent)");
         }},
        {"reversal", [](Context& c) { return send_event(c, lm::kEvtReversal); }},
        {"silence", [](Context& c) { return send_event(c, lm::kEvtSilence); }},
        {"signal", [](Context& c) { return send_event(c, lm::kEvtSignal); }},
        {"flow",
         [](Context& c) {
             std::string a = lower(c.args);
             if (a != "on" && a != "off")
                 return error("flow needs on or off");
             return send_event(c, a == "on" ? lm::kEvtFlowOn : lm::kEvtFlowOff);
         }},
        {"event",
         [](Context& c) {
             std::string_view rest = c.args;
             auto ch = parse_char(next_word(rest));
             if (!ch)
                 return error("event needs one character (or 0xNN), e.g. event J");
             if (rest.empty())
                 return send_event(c, *ch);
             return send_event(c, *ch, std::string(rest) + '\0');
         }},
        {"frame",
         [](Context& c) {
             auto bytes = from_hex(c.args);
             if (!bytes || bytes->empty())
                 return error("frame needs hex bytes, e.g. frame 52");
             c.sim.send_frame(*bytes);
             return ok("sent frame of " + std::to_string(bytes->size()) + " bytes");
         }},
        {"raw",
         [](Context& c) {
             auto bytes = from_hex(c.args);
             if (!bytes || bytes->empty())
                 return error("raw needs hex bytes, e.g. raw 05000000 52");
             c.sim.send_raw(*bytes);
             return ok("sent " + std::to_string(bytes->size()) + " raw bytes");
         }},
        {"reply",
         [](Context& c) {
             std::string_view rest = c.args;
             std::string token(next_word(rest));
             auto status = parse_long(next_word(rest));
             std::optional<char> stop = '\0';
             if (!rest.empty())
                 stop = parse_char(next_word(rest));
             if (token.empty() || !status || !stop || !rest.empty())
                 return error("reply needs <token> <status> [stop character]");
             c.sim.send_audio_reply(token, static_cast<int32_t>(*status), *stop);
             return ok("sent " + c.sim.sent().back());
         }},
        {"stop",
         [](Context& c) {
             auto ch = parse_char(c.args);
             if (!ch)
                 return error("stop needs one character (or 0xNN), e.g. stop X");
             if (!c.sim.stop_audio(*ch, c.now))
                 return error("no audio is running");
             return ok("sent " + c.sim.sent().back());
         }},
        {"finish",
         [](Context& c) {
             if (!c.sim.finish_audio(c.now))
                 return error("no audio is running");
             return ok("sent " + c.sim.sent().back());
         }},
        {"commands",
         [](Context& c) {
             std::vector<std::string> lines;
             for (const auto& r : c.sim.received())
                 lines.push_back(r.text);
             return list("commands", lines);
         }},
        {"sent",
         [](Context& c) {
             return list("messages",
                         std::vector<std::string>(c.sim.sent().begin(), c.sim.sent().end()));
         }},
        {"wait-command",
         [](Context& c) {
             std::string_view rest = c.args;
             std::string_view what = next_word(rest);
             std::optional<char> ch;
             if (!what.empty() && what != "any") {
                 ch = parse_char(what);
                 if (!ch)
                     return error("wait-command needs a command character or any");
             }
             double seconds = kDefaultWaitSeconds;
             if (!rest.empty()) {
                 std::string s(next_word(rest));
                 char* end = nullptr;
                 seconds = strtod(s.c_str(), &end);
                 if (*end || !(seconds >= 0) || !rest.empty())
                     return error("wait-command timeout must be seconds, e.g. 2.5");
             }
             LineSim* sim = &c.sim;
             return simctl::wait_for(
                 [sim, ch]() -> std::optional<std::string> {
                     if (auto found = sim->take_command(ch))
                         return "ok " + *found;
                     return std::nullopt;
                 },
                 seconds, wait_timeout_reply(ch));
         }},
        {"clear",
         [](Context& c) {
             c.sim.clear_logs();
             return ok("logs cleared");
         }},
        {"orders", [](Context& c) { return ok(c.sim.orders_text()); }},
        {"status", [](Context& c) { return ok(c.sim.status_text(c.now)); }},
        {"help",
         [](Context&) {
             return simctl::help(std::vector<std::string>(std::begin(kHelp), std::end(kHelp)));
         }},
    };
    return table;
}

}  // namespace

ControlReply run_control(LineSim& sim, std::string_view line, Clock::time_point now) {
    return simctl::dispatch_table(line, handlers(), [&](std::string_view args) {
        return Context{sim, args, now};
    });
}

}  // namespace kal::linesim
