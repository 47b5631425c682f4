#include "v253/dle_codec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

// What the decoder reported, as text: data as "d:" and hex, events as "e:"
// and the code (ETX as "e:ETX"). Adjacent data runs are merged, since where
// the decoder cuts a run is its own business.
struct Trace final : v253::DleSink {
    std::vector<std::string> items;
    void on_data(std::string_view b) override {
        std::string hex;
        for (unsigned char c : b) {
            char buf[4];
            snprintf(buf, sizeof buf, "%02x", c);
            hex += buf;
        }
        if (!items.empty() && items.back().rfind("d:", 0) == 0)
            items.back() += hex;
        else
            items.push_back("d:" + hex);
    }
    void on_event(char c) override { items.push_back(c == v253::kEtx ? "e:ETX"s : "e:"s + c); }
};

std::vector<std::string> decode(const std::vector<std::string>& chunks) {
    v253::DleDecoder d;
    Trace t;
    for (const auto& c : chunks)
        d.feed(c, t);
    return t.items;
}

struct DecodeCase {
    const char* desc;
    std::vector<std::string> chunks;
    std::vector<std::string> want;
};

TEST(DleDecoder, DecodesTheModemsStream) {
    const DecodeCase cases[] = {
        {"plain audio passes", {"\x80\x81\x7f"s}, {"d:80817f"}},
        {"a doubled DLE is one 0x10 byte", {"\x80\x10\x10\x81"s}, {"d:801081"}},
        {"<DLE><SUB> is two 0x10 bytes", {"\x10\x1a\x80"s}, {"d:101080"}},
        {"a digit between samples",
         {"\x80\x10"
          "5\x81"s},
         {"d:80", "e:5", "d:81"}},
        {"end of stream, then text",
         {"\x80\x10\x03\r\nOK\r\n"s},
         {"d:80", "e:ETX", "d:0d0a4f4b0d0a"}},
        {"a code cut between two reads", {"\x80\x10"s, "\x10\x81"s}, {"d:801081"}},
        {"an event cut between two reads", {"\x10"s, "b"s}, {"e:b"}},
        {"a held key in brackets is one press",
         {"\x10/\x10"
          "5\x10"
          "5\x10"
          "5\x10~"s},
         {"e:5"}},
        {"two presses of the same key are two",
         {"\x10/\x10"
          "1\x10~\x10/\x10"
          "1\x10~"s},
         {"e:1", "e:1"}},
        {"a new key inside one bracket counts",
         {"\x10/\x10"
          "1\x10"
          "1\x10"
          "2\x10~"s},
         {"e:1", "e:2"}},
        {"unbracketed repeats are separate presses",
         {"\x10"
          "7\x10"
          "7"s},
         {"e:7", "e:7"}},
        {"handset and tones by their own code",
         {"\x10H\x10h\x10"
          "c\x10s"s},
         {"e:H", "e:h", "e:c", "e:s"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(decode(c.chunks), c.want) << c.desc;
}

TEST(DleEscape, DoublesEveryDleAndNothingElse) {
    EXPECT_EQ(v253::dle_escape("\x80\x10\x03\x10\x10"s), "\x80\x10\x10\x03\x10\x10\x10\x10"s);
    EXPECT_EQ(v253::dle_escape(""), "");
    // What a decoder makes of it is the original again.
    std::string all;
    for (int i = 0; i < 256; ++i)
        all += static_cast<char>(i);
    EXPECT_EQ(decode({v253::dle_escape(all)}).size(), 1u);
}

}  // namespace
