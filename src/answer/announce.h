#pragma once

// The configured command run for each new message (announce_command), with
// the message's details in its environment:
//
//   KAL_MESSAGE_ID, KAL_MESSAGE_MAILBOX, KAL_MESSAGE_LINE,
//   KAL_MESSAGE_CALLER_NUMBER ("" when withheld), KAL_MESSAGE_CALLER_NAME,
//   KAL_MESSAGE_TIME (ISO 8601, local), KAL_MESSAGE_DURATION (seconds),
//   KAL_MESSAGE_FILE (the WAV), KAL_MESSAGES_WAITING
//
// It runs through /bin/sh -c, detached from the service's loop; reap()
// collects the ones that ended.

#include <sys/types.h>
#include <string>
#include <vector>

#include "answer/store.h"

namespace kal::answer {

// The NAME=value pairs the command gets for `m`.
std::vector<std::string> announcement_environment(const Message& m, const std::string& wav,
                                                  int waiting);

// Starts `command`; returns its pid, or -1 (with a message on stderr).
pid_t run_announcement(const std::string& command, const std::vector<std::string>& env);

// Collects every announcement command that has ended, without waiting.
void reap_announcements();

}  // namespace kal::answer
