// The modem's text: result codes, lines, caller ID and the =? answers.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "v253/at_command.h"
#include "v253/caller_id.h"
#include "v253/voice_format.h"

using namespace std::string_literals;
using v253::AtResult;

namespace {

TEST(AtResult, ClassifiesFinalResultsOnly) {
    EXPECT_EQ(v253::classify_result("OK"), AtResult::Ok);
    EXPECT_EQ(v253::classify_result("VCON"), AtResult::Vcon);
    EXPECT_EQ(v253::classify_result("CONNECT"), AtResult::Connect);
    EXPECT_EQ(v253::classify_result("CONNECT 33600"), AtResult::Connect);
    EXPECT_EQ(v253::classify_result("ERROR"), AtResult::Error);
    EXPECT_EQ(v253::classify_result("NO DIAL TONE"), AtResult::NoDialtone);
    EXPECT_EQ(v253::classify_result("BUSY"), AtResult::Busy);
    EXPECT_EQ(v253::classify_result("OKAY"), AtResult::None);
    EXPECT_EQ(v253::classify_result("1,\"UNSIGNED PCM\",8,0,8000,0,0"), AtResult::None);
}

TEST(LineSplitter, CutsAtCrAndLfAndStopsWhereAsked) {
    v253::LineSplitter s;
    std::vector<std::string> lines;
    auto keep = [&](std::string_view l) {
        lines.emplace_back(l);
        return l != "CONNECT";
    };
    EXPECT_EQ(s.feed("\r\nOK\r\n\r\nRI", keep), 10u);
    EXPECT_EQ(s.feed("NG\r\nCONNECT\r\x80\x81", keep), 12u);  // stops after the CR
    EXPECT_EQ(lines, (std::vector<std::string>{"OK", "RING", "CONNECT"}));
}

struct Exchange {
    std::string sent;
    std::vector<v253::AtOutcome> outcomes;
    v253::AtExchange at{[this](std::string_view b) { sent += b; }};
    v253::Clock::time_point t0{};
    v253::AtExchange::Done record() {
        return [this](const v253::AtOutcome& o) { outcomes.push_back(o); };
    }
};

TEST(AtExchange, SendsOneCommandAtATimeAndAcceptsWhatItWasToldTo) {
    Exchange x;
    x.at.queue("AT+VLS=1", {AtResult::Ok, AtResult::Vcon}, std::chrono::seconds(5), x.record());
    x.at.queue("AT+VTX", {AtResult::Connect}, std::chrono::seconds(5), x.record());
    x.at.pump(x.t0);
    EXPECT_EQ(x.sent, "AT+VLS=1\r");
    EXPECT_TRUE(x.at.on_line("AT+VLS=1", x.t0));  // the echo
    EXPECT_TRUE(x.at.on_line("VCON", x.t0));
    EXPECT_EQ(x.sent, "AT+VLS=1\rAT+VTX\r");
    EXPECT_TRUE(x.at.on_line("ERROR", x.t0));
    ASSERT_EQ(x.outcomes.size(), 2u);
    EXPECT_TRUE(x.outcomes[0].ok());
    EXPECT_EQ(x.outcomes[0].result, AtResult::Vcon);
    EXPECT_TRUE(x.outcomes[0].info.empty());
    EXPECT_EQ(x.outcomes[1].kind, v253::AtOutcome::Kind::Refused);
    EXPECT_FALSE(x.at.on_line("OK", x.t0));  // nothing waits for it
}

TEST(AtExchange, CollectsInformationLinesAndTimesOut) {
    Exchange x;
    x.at.queue("AT+VSM=?", {AtResult::Ok}, std::chrono::seconds(5), x.record());
    x.at.queue("AT", {AtResult::Ok}, std::chrono::seconds(5), x.record());
    x.at.pump(x.t0);
    x.at.on_line("1,\"UNSIGNED PCM\",8,0,8000,0,0", x.t0);
    x.at.on_line("OK", x.t0);
    ASSERT_EQ(x.outcomes.size(), 1u);
    EXPECT_EQ(x.outcomes[0].info, std::vector<std::string>{"1,\"UNSIGNED PCM\",8,0,8000,0,0"});
    ASSERT_EQ(x.at.next_deadline(), x.t0 + std::chrono::seconds(5));
    x.at.on_time(x.t0 + std::chrono::seconds(4));
    EXPECT_EQ(x.outcomes.size(), 1u);
    x.at.on_time(x.t0 + std::chrono::seconds(5));
    ASSERT_EQ(x.outcomes.size(), 2u);
    EXPECT_EQ(x.outcomes[1].kind, v253::AtOutcome::Kind::TimedOut);
}

TEST(AtExchange, HoldsCommandsInADataStateButNotExpectations) {
    Exchange x;
    x.at.hold(true, x.t0);
    x.at.queue("AT+VTS=1", {AtResult::Ok}, std::chrono::seconds(5), x.record());
    x.at.pump(x.t0);
    EXPECT_EQ(x.sent, "");
    x.at.expect_first({AtResult::Ok, AtResult::Vcon}, std::chrono::seconds(5), x.record());
    x.at.pump(x.t0);
    EXPECT_EQ(x.sent, "");  // an expectation sends nothing
    x.at.on_line("OK", x.t0);
    ASSERT_EQ(x.outcomes.size(), 1u);
    EXPECT_EQ(x.sent, "");  // still held
    x.at.hold(false, x.t0);
    EXPECT_EQ(x.sent, "AT+VTS=1\r");
}

TEST(CallerId, ReadsTheBlockWithOrWithoutSpaces) {
    v253::CallerIdBlock b;
    EXPECT_TRUE(b.add_line("DATE = 0321"));
    EXPECT_TRUE(b.add_line("TIME=1405"));
    EXPECT_TRUE(b.add_line("NMBR = 5551234"));
    EXPECT_TRUE(b.add_line("NAME=JANE DOE"));
    EXPECT_FALSE(b.add_line("OK"));
    EXPECT_FALSE(b.add_line("AT+VCID=1"));  // an echo is not a field
    EXPECT_EQ(b.take_text(), "5551234 JANE DOE");
    EXPECT_TRUE(b.empty());
}

TEST(CallerId, NamesTheMarkersOfWithheldAndUnavailableCallers) {
    v253::CallerIdBlock b;
    b.add_line("NMBR=P");
    EXPECT_EQ(b.take_text(), "PRIVATE");
    b.add_line("NMBR = P");
    b.add_line("NAME = P");
    EXPECT_EQ(b.take_text(), "PRIVATE");
    b.add_line("NMBR=O");
    b.add_line("NAME=JANE DOE");
    EXPECT_EQ(b.take_text(), "UNAVAILABLE JANE DOE");
    b.add_line("NAME=O");
    EXPECT_EQ(b.take_text(), "UNAVAILABLE");
}

TEST(VoiceFormat, PicksEightBitUnsignedLinearByNameWhateverItsNumber) {
    const std::vector<std::string> conexant = {
        "1,\"UNSIGNED PCM\",8,0,8000,0,0",   "129,\"IMA ADPCM\",4,0,8000,0,0",
        "130,\"UNSIGNED PCM\",8,0,8000,0,0", "131,\"G.711 ULAW\",8,0,8000,0,0",
        "140,\"2 Bit ADPCM\",2,0,8000,0,0",
    };
    EXPECT_EQ(v253::choose_voice_methods(conexant), (std::vector<int>{1, 130, 128}));
    const std::vector<std::string> usr = {
        "+VSM: 128,\"8-BIT LINEAR\",8,0,(7200,8000,11025),(0),(0)",
        "+VSM: 129,\"16-BIT LINEAR\",16,0,(7200,8000,11025),(0),(0)",
        "+VSM: 1,\"SIGNED PCM\",8,0,(8000),(0),(0)",
    };
    // 1 is another format on this modem, so it is not tried.
    EXPECT_EQ(v253::choose_voice_methods(usr), (std::vector<int>{128}));
    // Nothing readable: the known numberings.
    EXPECT_EQ(v253::choose_voice_methods({}), (std::vector<int>{1, 128}));
    // The rate must be offered; a range counts.
    EXPECT_EQ(v253::choose_voice_methods({"5,\"UNSIGNED PCM\",8,0,(11025),0,0",
                                          "6,\"8-BIT LINEAR\",8,0,(7200-11025),0,0"}),
              (std::vector<int>{6, 1, 128}));
}

TEST(VoiceFormat, FindsTheTelephoneLineByItsLabel) {
    EXPECT_EQ(v253::find_line_selection({"0,\"\",00000000,00000000,00000000",
                                         "1,\"T\",0B350000,0B350000,0B350000",
                                         "2,\"L\",00000000,00000000,00000000"}),
              1);
    EXPECT_EQ(v253::find_line_selection({"+VLS: 0,\"\"", "+VLS: 4,\"T\"", "+VLS: 5,\"LT\""}), 4);
    EXPECT_EQ(v253::find_line_selection({"ERROR"}), std::nullopt);
}

}  // namespace
