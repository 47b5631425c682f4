#pragma once

// How long a text from a client may be: no longer than the record of the
// line-monitor protocol that carries it (or would carry it), so nothing a
// client sends is cut on its way to the line, and no request can make the
// daemon hold more than the line could ever use. A request with a longer
// text is malformed and is answered before anything is queued.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "lineio/protocol.h"

namespace kal::limits {

// A dial string: `D`, the digits and a NUL in one message the line monitor
// reads into a buffer of kEventBufferSize bytes.
inline constexpr size_t kDialString = lm::kEventBufferSize - 2;
// Digits dialed before a recording, and the mailbox and menu codes a node
// compares with the digits it hears: the firstDialing field.
inline constexpr size_t kDigits = lm::lm_audio_request::kFirstDialingWidth - 1;
// A number for a placed call: its field of the call request.
inline constexpr size_t kNumber = lm::lm_call_request::kNumberWidth - 1;
// A client's token: the token field of the call request.
inline constexpr size_t kToken = lm::lm_call_request::kTokenWidth - 1;
// An adapter's serial: its field of the orders record.
inline constexpr size_t kSerial = lm::lm_orders::kFieldWidth - 1;
// An audio file: the path field of the audio request (1024 bytes with its NUL).
inline constexpr size_t kPath = lm::lm_audio_request::kPathWidth - 1;
// The text of a timed reversal: `V`, the mode, the text and a NUL in one message.
inline constexpr size_t kTRVText = lm::kEventBufferSize - 6;

// True when the text is absent or no longer than `limit` bytes.
inline bool fits(const std::optional<std::string>& text, size_t limit) {
    return !text || text->size() <= limit;
}
// True when every text of the list fits.
inline bool fits(const std::vector<std::string>& texts, size_t limit) {
    for (const auto& text : texts)
        if (text.size() > limit)
            return false;
    return true;
}

}  // namespace kal::limits
