#pragma once

// The configuration property list `qlxconfig`: one dictionary holding the
// line preferences that clients write and read back, and the one key the
// daemon itself reads at start-up. Running lines are not told of changes:
// the preferences take effect at the next start.

#include <cstdint>
#include <optional>
#include <string>

#include "base/value.h"

// 1 when voicemail silence detection is enabled, else 0.
extern int8_t qlx_enabled_silence_detection;

inline constexpr const char kSilenceDetectionKey[] = "KALVMSilenceDetection";

// True when the file at `path` is a dictionary whose "KALVMSilenceDetection"
// value reads as a nonzero integer (a number, a boolean, or a string such as
// "1"). A missing, unreadable or malformed file reads as false.
bool read_silence_detection(const std::string& path);

// The whole dictionary at `path`, or nullopt when the file is missing,
// unreadable or not a dictionary. Values without a kal::Value counterpart
// (dates) are left out (core/plist_value.h).
std::optional<kal::ValueDict> read_line_preferences(const std::string& path);

// Makes `preferences` the whole dictionary at `path`: a client changes one
// key by reading the dictionary, changing it and writing it back (kalctl
// prefs does). The file is replaced atomically. Returns false with errno set
// when it cannot be written.
bool write_line_preferences(const std::string& path, const kal::ValueDict& preferences);
