#pragma once

// Small text helpers shared by the simulators' control vocabularies: words
// of a command line, numbers, characters written as themselves or 0xNN, and
// the hex codec of commands that carry raw bytes.

#include <optional>
#include <string>
#include <string_view>

namespace kal::simctl {

std::string_view trim(std::string_view s);
// First word of `s`; `s` keeps the rest, trimmed.
std::string_view next_word(std::string_view& s);
std::string lower(std::string_view s);
// The whole of `s` as a decimal integer, nothing otherwise.
std::optional<long> parse_long(std::string_view s);
// The whole of `s` as a non-negative number of seconds ("2.5").
std::optional<double> parse_seconds(std::string_view s);
// A character written as itself, or as 0xNN / \xNN.
std::optional<char> parse_char(std::string_view s);
// Printable form of one character: "p", or "\x01".
std::string char_text(char c);

std::string to_hex(std::string_view bytes);
// Pairs of hex digits; spaces, ':' and a leading "0x" per group are ignored.
// Nothing on odd length or any other character.
std::optional<std::string> from_hex(std::string_view text);

}  // namespace kal::simctl
