#pragma once

// What a modem offers, read from its answers to the `=?` queries, so that
// nothing has to be configured by hand for each make:
//
// AT+VSM=? lists the compression methods, one a line, optionally after
// "+VSM: ":
//     <number>,"<name>",<bits>,<timing>,<rates>,<sensitivity>,<expansion>
// e.g.  1,"UNSIGNED PCM",8,0,8000,0,0        (one maker's numbering)
//       128,"8-BIT LINEAR",8,0,(7200,8000,11025),(0),(0)   (another's)
// The daemon's audio is 8-bit unsigned linear at 8000 samples a second;
// the method is chosen by its name, not its number.
//
// AT+VLS=? lists the line-selection choices, each with a label:
//     <number>,"<label>",<bitmaps>...
// "T" is the telephone line alone: what answering and dialing select.

#include <optional>
#include <string>
#include <vector>

namespace v253 {

struct VoiceMethod {
    int number = -1;
    std::string name;
    int bits = 0;
    std::vector<int> rates;  // expanded from "8000", "(7200,8000)" or "(7200-11025)"
};

// Parses one line of the +VSM=? answer; nullopt for anything else.
std::optional<VoiceMethod> parse_voice_method(const std::string& line);

// The numbers to try, best first: every listed method that is 8-bit
// unsigned linear at 8000 Hz, by name; then the numbers makers are known
// to use for it that the list does not name at all (it may be missing or
// unreadable).
std::vector<int> choose_voice_methods(const std::vector<std::string>& vsm_answer);

// Known numberings of 8-bit unsigned linear: one maker's 1, another's 128.
inline constexpr int kKnownLinearMethods[] = {1, 128};

// The line-selection number labelled "T" in the +VLS=? answer, or nullopt.
std::optional<int> find_line_selection(const std::vector<std::string>& vls_answer,
                                       const std::string& label = "T");

}  // namespace v253
