#pragma once

// The DLE-shielded byte stream of a voice modem in voice mode, both ways.
//
// From the modem, a <DLE> (0x10) byte starts a two-byte code:
//   <DLE><DLE>   one 0x10 byte of audio
//   <DLE><SUB>   two 0x10 bytes of audio (a shortened <DLE><DLE><DLE><DLE>)
//   <DLE><ETX>   end of the modem's audio stream
//   <DLE>/ ... <DLE>~
//                brackets a touch-tone key; modems that bracket repeat the
//                digit for as long as the key is held, so one bracket is
//                one key press
//   <DLE>x       any other byte: the event x (a digit, `b` busy, `s`
//                silence, `h` handset on hook...)
// Everything else is audio in a receive stream and text in command state;
// the decoder hands both out as data, in order with the events, so the
// owner can switch where data goes when the stream ends.
//
// To the modem, audio is sent with every 0x10 doubled and ended or
// interrupted by the codes below.

#include <string>
#include <string_view>

namespace v253 {

inline constexpr char kDle = 0x10;
inline constexpr char kEtx = 0x03;
inline constexpr char kSub = 0x1a;

// What the decoder found. Events are reported by their code byte; the end
// of the stream as kEtx.
class DleSink {
  public:
    virtual ~DleSink() = default;
    virtual void on_data(std::string_view bytes) = 0;
    virtual void on_event(char code) = 0;
};

class DleDecoder {
  public:
    // Decodes `in`, which may end inside a code; the rest is kept for the
    // next call.
    void feed(std::string_view in, DleSink& sink);

  private:
    bool after_dle_ = false;
    bool in_bracket_ = false;
    char bracket_digit_ = 0;
};

bool is_dtmf_digit(char c);

// Audio for the modem with every 0x10 doubled.
std::string dle_escape(std::string_view audio);

// Ends a play: the modem plays out what it holds, then answers.
inline constexpr std::string_view kEndOfPlay{"\x10\x03", 2};
// Drops what the modem still holds of a play, then ends it.
inline constexpr std::string_view kFlushPlay{"\x10\x18\x10\x03", 4};
// Ends a recording: the modem sends its last audio, <DLE><ETX>, then answers.
inline constexpr std::string_view kStopRecord{"\x10!", 2};

}  // namespace v253
