#include "v253/dle_codec.h"

namespace v253 {

bool is_dtmf_digit(char c) {
    return (c >= '0' && c <= '9') || c == '*' || c == '#' || (c >= 'A' && c <= 'D');
}

void DleDecoder::feed(std::string_view in, DleSink& sink) {
    size_t run = 0;  // start of the current run of plain data
    for (size_t i = 0; i < in.size(); ++i) {
        const char c = in[i];
        if (!after_dle_) {
            if (c == kDle) {
                if (i > run)
                    sink.on_data(in.substr(run, i - run));
                after_dle_ = true;
            }
            continue;
        }
        after_dle_ = false;
        run = i + 1;
        switch (c) {
            case kDle:
                sink.on_data(std::string_view("\x10", 1));
                break;
            case kSub:
                sink.on_data(std::string_view("\x10\x10", 2));
                break;
            case '/':
                in_bracket_ = true;
                bracket_digit_ = 0;
                break;
            case '~':
                in_bracket_ = false;
                bracket_digit_ = 0;
                break;
            default:
                if (is_dtmf_digit(c) && in_bracket_) {
                    if (c == bracket_digit_)
                        break;  // the key is still held
                    bracket_digit_ = c;
                }
                sink.on_event(c);
                break;
        }
    }
    if (!after_dle_ && run < in.size())
        sink.on_data(in.substr(run));
}

std::string dle_escape(std::string_view audio) {
    std::string out;
    out.reserve(audio.size() + audio.size() / 64 + 4);
    for (char c : audio) {
        out += c;
        if (c == kDle)
            out += kDle;
    }
    return out;
}

}  // namespace v253
