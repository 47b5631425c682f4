#pragma once

// kal::Value <-> D-Bus. A notification's object travels as a variant (v), its
// user-info as a{sv}: strings as s, KALEventTimeKey as x, and every other
// value as the type it holds (the daemon's own integers are int32_t, hence
// i). Redistributed notifications come from clients and may nest anything:
// arrays, dictionaries, structures and variants are read to any depth.
//
// Each function returns >= 0 or a negative errno, and leaves the message
// wherever it failed: the caller gives up on that message.

#include <systemd/sd-bus.h>

#include <string>
#include <string_view>

#include "base/value.h"

namespace kal::bus {

// D-Bus strings must be valid UTF-8 without NUL, but much of what the daemon
// passes on was never checked by anyone: caller-ID names and other texts from
// line monitors, modem responses, log texts. Every text the daemon puts on
// the bus therefore goes through as_bus_text: it ends at the first NUL, as a
// C string does; valid UTF-8 passes unchanged; every byte that does not start
// a valid sequence is taken as ISO-8859-1, the usual encoding of caller-ID
// names on analogue lines, and becomes that character. A text is never
// refused, so no notification is lost for its bytes.
std::string as_bus_text(std::string_view bytes);
// True when `bytes` is a text D-Bus accepts as it is.
bool is_bus_text(std::string_view bytes);
// Appends `text` as a D-Bus string (s), through as_bus_text.
int append_text(sd_bus_message* m, const std::string& text);

// The D-Bus signature a value is sent as ("s", "a{sv}", "av", ...). D-Bus
// has no nil: a nil value goes as the empty string.
std::string signature_of(const Value& value);

// Appends `value` wrapped in a variant.
int append_variant(sd_bus_message* m, const Value& value);
// Appends a plain a{sv}.
int append_dict(sd_bus_message* m, const ValueDict& dict);
// Appends a notification's user-info: an a{sv} whose KALEventTimeKey, when
// it is an integer, goes as x whatever width it was stored with.
int append_user_info(sd_bus_message* m, const ValueDict& info);

// Reads whatever value comes next (a variant is unwrapped) into `out`.
int read_value(sd_bus_message* m, Value& out);
// Reads a variant into `out`.
int read_variant(sd_bus_message* m, Value& out);
// Reads an a{sv}.
int read_dict(sd_bus_message* m, ValueDict& out);

}  // namespace kal::bus
