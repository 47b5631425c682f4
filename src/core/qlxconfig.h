#pragma once

// The configuration property list `qlxconfig`: a dictionary of which the
// daemon reads one key at start-up.

#include <cstdint>
#include <string>

// 1 when voicemail silence detection is enabled, else 0.
extern int8_t qlx_enabled_silence_detection;

inline constexpr const char kSilenceDetectionKey[] = "KALVMSilenceDetection";

// True when the file at `path` is a dictionary whose "KALVMSilenceDetection"
// value reads as a nonzero integer (a number, a boolean, or a string such as
// "1"). A missing, unreadable or malformed file reads as false.
bool read_silence_detection(const std::string& path);
