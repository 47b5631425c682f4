#include "lineio/protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <string>

using namespace std::string_literals;

namespace {

// The four bytes of a 32-bit int as this host stores it, spelled out by hand
// for both byte orders so that the expectation does not come from the code
// under test.
std::string host(uint32_t v) {
    const char b0 = static_cast<char>(v >> 24), b1 = static_cast<char>(v >> 16),
               b2 = static_cast<char>(v >> 8), b3 = static_cast<char>(v);
    if constexpr (std::endian::native == std::endian::little)
        return std::string{b3, b2, b1, b0};
    else
        return std::string{b0, b1, b2, b3};
}

// A zero-filled record with `text` placed at `offset`.
struct Expected {
    explicit Expected(size_t size) : bytes(size, '\0') {}
    Expected& at(size_t offset, const std::string& text) {
        bytes.replace(offset, text.size(), text);
        return *this;
    }
    std::string bytes;
};

// Reports the first differing offset instead of two 1600-byte dumps.
::testing::AssertionResult SameBytes(const std::string& want, const std::string& got) {
    if (want.size() != got.size())
        return ::testing::AssertionFailure()
               << "size " << got.size() << ", expected " << want.size();
    for (size_t i = 0; i < want.size(); ++i)
        if (want[i] != got[i])
            return ::testing::AssertionFailure()
                   << "byte " << i << " is " << int(static_cast<unsigned char>(got[i]))
                   << ", expected " << int(static_cast<unsigned char>(want[i]));
    return ::testing::AssertionSuccess();
}

TEST(LineMonitorProtocol, HostOrderIntsAreTheRawHostBytes) {
    if constexpr (std::endian::native == std::endian::little)
        EXPECT_EQ(lm::cmd_deadman(30), "\x3e\x1e\x00\x00\x00"s);
    else
        EXPECT_EQ(lm::cmd_deadman(30), "\x3e\x00\x00\x00\x1e"s);
}

struct CommandCase {
    const char* desc;
    std::string got;
    std::string want;
};

TEST(LineMonitorProtocol, ShortCommandsHaveExactBytes) {
    const CommandCase cases[] = {
        {"empty dial", lm::cmd_dial(""), "D\0"s},
        {"dial", lm::cmd_dial("9,5551234"), "D9,5551234\0"s},
        {"dial ends at an embedded NUL",
         lm::cmd_dial("12\0"
                      "34"s),
         "D12\0"s},
        {"hang up", lm::cmd_hangup(), "H\0"s},
        {"cancel audio", lm::cmd_cancel_audio(), "X\0"s},
        {"deadman", lm::cmd_deadman(30), ">"s + host(30)},
        {"negative deadman", lm::cmd_deadman(-2), ">"s + host(0xfffffffe)},
        {"beep", lm::cmd_beep(2), "!"s + host(2)},
        {"TRV", lm::cmd_trv(7, "ab"), "V"s + host(7) + "ab\0"s},
        {"TRV with no text", lm::cmd_trv(0x01020304, ""), "V"s + host(0x01020304) + "\0"s},
    };
    for (const auto& c : cases)
        EXPECT_TRUE(SameBytes(c.want, c.got)) << c.desc;
}

TEST(LineMonitorProtocol, PlayAndRecordCarryTheAudioRequestAfterTheCommandByte) {
    lm::lm_audio_request r;
    r.path = "/var/spool/ogm.raw";
    r.stopString = "PplbehHJafsq";
    r.token = "4711";
    r.flags = 0x10203;
    r.length = 17;
    r.postPlayPause = 3;
    const std::string play = Expected(1629)
                                 .at(0, "P")
                                 .at(1, "/var/spool/ogm.raw")
                                 .at(1025, "PplbehHJafsq")
                                 .at(1105, "4711")
                                 .at(1617, host(0x10203))
                                 .at(1621, host(17))
                                 .at(1625, host(3))
                                 .bytes;
    EXPECT_TRUE(SameBytes(play, lm::cmd_play(r)));

    r.firstDialing = "*70,5551234";
    r.postPlayPause = 0;
    std::string record = play;
    record[0] = 'R';
    record.replace(1360, 11, "*70,5551234");
    record.replace(1625, 4, 4, '\0');
    EXPECT_TRUE(SameBytes(record, lm::cmd_record(r)));

    const lm::lm_audio_request p = lm::parse_audio_request(record.data() + 1, record.size() - 1);
    EXPECT_EQ(p.path, "/var/spool/ogm.raw");
    EXPECT_EQ(p.stopString, "PplbehHJafsq");
    EXPECT_EQ(p.token, "4711");
    EXPECT_EQ(p.firstDialing, "*70,5551234");
    EXPECT_EQ(p.flags, 0x10203);
    EXPECT_EQ(p.length, 17);
    EXPECT_EQ(p.postPlayPause, 0);
}

TEST(LineMonitorProtocol, CallRequestIsTokenThenNumber) {
    const std::string want =
        Expected(511).at(0, "C").at(1, "client-token").at(256, "18005550199").bytes;
    EXPECT_TRUE(SameBytes(want, lm::cmd_call({"client-token", "18005550199"})));
    EXPECT_EQ(lm::parse_call_request(want.data() + 1, 510).number, "18005550199");
}

TEST(LineMonitorProtocol, OrdersRecordHasThreeFieldsOf1024Bytes) {
    const std::string want =
        Expected(3072).at(0, "/dev/ttyUSB0").at(1024, "A1B2C3").at(2048, "opaque").bytes;
    EXPECT_TRUE(SameBytes(want, lm::build_orders({"/dev/ttyUSB0", "A1B2C3", "opaque"})));

    const lm::lm_orders o = lm::parse_orders(want.data(), want.size());
    EXPECT_EQ(o.line, "/dev/ttyUSB0");
    EXPECT_EQ(o.serial, "A1B2C3");
    EXPECT_EQ(o.extra, "opaque");
}

TEST(LineMonitorProtocol, AudioResponseLayout) {
    const std::string wire =
        Expected(268).at(0, "^").at(1, "0").at(256, host(4)).at(260, "#").at(264, host(99)).bytes;
    lm::lm_audio_response r;
    r.token = "0";
    r.status = lm::kAudioStopped;
    r.stopChar = '#';
    r.extra = 99;
    EXPECT_TRUE(SameBytes(wire, lm::build_audio_response(r)));

    const lm::lm_audio_response p = lm::parse_audio_response(wire.data(), wire.size());
    EXPECT_EQ(p.type, '^');
    EXPECT_EQ(p.token, "0");
    EXPECT_EQ(p.status, 4);
    EXPECT_EQ(p.stopChar, '#');
    EXPECT_EQ(p.extra, 99);
}

TEST(LineMonitorProtocol, OverlongTextIsCutAndNeverSpillsIntoTheNextField) {
    lm::lm_audio_request r;
    r.path = std::string(5000, 'a');
    r.stopString = std::string(80, 's');
    r.token = std::string(255, '9');
    const std::string got = lm::cmd_play(r);
    ASSERT_EQ(got.size(), 1629u);
    EXPECT_EQ(got.substr(1, 1023), std::string(1023, 'a'));
    EXPECT_EQ(got[1024], '\0');
    EXPECT_EQ(got.substr(1025, 79), std::string(79, 's'));
    EXPECT_EQ(got[1104], '\0');
    EXPECT_EQ(got.substr(1105, 254), std::string(254, '9'));
    EXPECT_EQ(got[1359], '\0');

    lm::lm_audio_response resp;
    resp.token = std::string(300, '1');
    resp.status = 3;
    const std::string wire = lm::build_audio_response(resp);
    EXPECT_EQ(wire[255], '\0');
    EXPECT_EQ(wire.substr(256, 4), host(3));
}

TEST(LineMonitorProtocol, ParsersReadMissingBytesAsZero) {
    const lm::lm_audio_response empty = lm::parse_audio_response(nullptr, 0);
    EXPECT_EQ(empty.type, '\0');
    EXPECT_EQ(empty.token, "");
    EXPECT_EQ(empty.status, 0);

    // A token cut short by the end of the payload, not by a NUL.
    const std::string cut = "^12";
    const lm::lm_audio_response c = lm::parse_audio_response(cut.data(), cut.size());
    EXPECT_EQ(c.type, '^');
    EXPECT_EQ(c.token, "12");
    EXPECT_EQ(c.status, 0);

    // Only the first two bytes of the status arrived.
    std::string half = Expected(256).at(0, "^").bytes;
    half += host(0x0a0b0c0d).substr(0, 2);
    const int32_t want = std::endian::native == std::endian::little ? 0x0c0d : 0x0a0b0000;
    EXPECT_EQ(lm::parse_audio_response(half.data(), half.size()).status, want);

    const std::string call = "Ctok";  // a call record that stops inside the token
    EXPECT_EQ(lm::parse_call_request(call.data() + 1, 3).token, "tok");
    EXPECT_EQ(lm::parse_call_request(call.data() + 1, 3).number, "");

    EXPECT_EQ(lm::get_i32("abc", 3, 100), 0);

    // A hostile response with no NUL anywhere in the token field.
    std::string unterminated(268, '7');
    unterminated[0] = '^';
    EXPECT_EQ(lm::parse_audio_response(unterminated.data(), unterminated.size()).token,
              std::string(254, '7'));
}

TEST(LineMonitorProtocol, PlayLengthIsWholeSecondsRoundedUp) {
    EXPECT_EQ(lm::play_length_seconds(0), 0);
    EXPECT_EQ(lm::play_length_seconds(-5), 0);
    EXPECT_EQ(lm::play_length_seconds(1), 1);
    EXPECT_EQ(lm::play_length_seconds(8000), 1);
    EXPECT_EQ(lm::play_length_seconds(8001), 2);
    EXPECT_EQ(lm::play_length_seconds(240000), 30);
    EXPECT_EQ(lm::play_length_seconds(1LL << 62), INT32_MAX);
}

}  // namespace
