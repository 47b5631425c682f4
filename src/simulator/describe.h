#pragma once

// Readable one-line forms of what crosses the line socket, for the
// simulator's command and message logs, and the hex codec of `raw`/`frame`.
//
// A value is printed bare when it is non-empty printable ASCII without
// space, '"', '\\' or '='; otherwise it is double-quoted with C escapes
// (\" \\ \n \t \xNN). Integers are decimal except flags, which are hex.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "simctl/text.h"

namespace kal::linesim {

std::string quote(std::string_view value);

// A command from the daemon, e.g.
//   "P path=/x stop=Pplb token=12 flags=0x184 length=3 pause=1".
// A payload whose length does not fit its command reads
//   "P malformed length=20 expected=1629 hex=50..."
// and an unknown command character "Z unknown length=3 hex=5a0102".
std::string describe_command(const char* data, size_t len);

// A message to the daemon, e.g. "R", "# digit=5", "X text=\"Jane Doe\"",
// "^ token=12 status=3 stop= extra=16000".
std::string describe_event(std::string_view payload);

// char_text, to_hex and from_hex come from the shared control helpers.
using simctl::char_text;
using simctl::from_hex;
using simctl::to_hex;

// "complete", "invalid-file", ... for an audio-response status.
const char* audio_status_name(int status);

}  // namespace kal::linesim
