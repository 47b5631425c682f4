// The emulated modem as its host sees it: AT command answers and the DLE
// streams both ways, checked against literal bytes, on a clock the test
// drives.

#include "modemsim/modem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "modemsim/control.h"

using namespace kal::modemsim;
using namespace std::chrono_literals;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

const std::string kOK = "\r\nOK\r\n";
const std::string kERROR = "\r\nERROR\r\n";
const std::string kDle(1, kDLE);

class Collect : public ModemOutput {
  public:
    void to_host(std::string_view bytes) override { bytes_.append(bytes); }
    std::string take() { return std::exchange(bytes_, {}); }

  private:
    std::string bytes_;
};

class ModemTest : public ::testing::Test {
  protected:
    explicit ModemTest(Quirks q = {}) : modem_(std::move(q), 1, out_) {}

    // The host sends `bytes`; what the modem answered at once.
    std::string host(const std::string& bytes) {
        modem_.on_host_bytes(bytes, now_);
        return out_.take();
    }
    std::string at(const std::string& line) { return host(line + "\r"); }
    // Time passes; what the modem sent meanwhile.
    std::string advance(std::chrono::milliseconds d) {
        for (auto end = now_ + d; now_ < end;) {
            auto next = modem_.next_deadline();
            now_ = next && *next<end&& * next> now_ ? *next : end;
            modem_.on_time(now_);
        }
        return out_.take();
    }
    // Voice mode, echo off, off hook.
    void voice_off_hook() {
        at("ATE0");
        ASSERT_EQ(at("AT+FCLASS=8"), kOK);
        ASSERT_EQ(at("AT+VLS=1"), kOK);
    }

    Collect out_;
    Modem modem_;
    Clock::time_point now_{};
};

TEST_F(ModemTest, AnswersTheInitialisationAsAVoiceModemDoes) {
    EXPECT_EQ(at("ATZ"), "ATZ\r" + kOK);  // echo until ATE0
    EXPECT_EQ(at("ATE0"), "ATE0\r" + kOK);
    EXPECT_EQ(at("AT+VCID=1"), kERROR);  // voice commands need +FCLASS=8
    EXPECT_EQ(at("at+fclass=8"), kOK);
    EXPECT_EQ(at("AT+FCLASS?"), "\r\n8\r\n" + kOK);
    EXPECT_EQ(at("AT+VCID=1"), kOK);
    const std::string formats = at("AT+VSM=?");
    EXPECT_THAT(formats, StartsWith("\r\n1,\"UNSIGNED PCM\",8,0,(7200,8000,11025),(0),(0)\r\n"));
    EXPECT_THAT(formats, EndsWith(kOK));
    EXPECT_EQ(at("AT+VSM=128,8000"), kERROR);  // not in this modem's list
    EXPECT_EQ(at("AT+VSM=1,9600"), kERROR);
    EXPECT_EQ(at("AT+VSM=1,8000"), kOK);
    EXPECT_EQ(at("AT+VSD=128,50;+VIT=10"), kOK);
    EXPECT_EQ(at("AT+VSD?"), "\r\n128,50\r\n" + kOK);
    EXPECT_THAT(at("AT+VLS=?"), StartsWith("\r\n0,\"\",00000000,00000000,00000000\r\n1,\"T\","));
    EXPECT_EQ(at("AT+VXYZ=1"), kERROR);
    EXPECT_EQ(at("hello"), "");  // not a command line
    EXPECT_FALSE(modem_.off_hook());
    EXPECT_EQ(at("AT+VLS=1"), kOK);
    EXPECT_TRUE(modem_.off_hook());
    EXPECT_EQ(at("ATH"), kOK);
    EXPECT_FALSE(modem_.off_hook());
    EXPECT_THAT(modem_.status_text(), HasSubstr("vsm=1 format=\"UNSIGNED PCM\" rate=8000"));
    EXPECT_EQ(modem_.take_log("at+vsm"), "AT+VSM=?");
    EXPECT_EQ(modem_.take_log("AT+VSM"), "AT+VSM=128,8000");
}

class QuirkyModemTest : public ModemTest {
  protected:
    static Quirks quirks() {
        Quirks q;
        q.vsm = VsmProfile::Usr;
        q.no_callerid = true;
        q.vcon = true;
        q.vls = {"", "L", "T"};
        return q;
    }
    QuirkyModemTest() : ModemTest(quirks()) {}
};

TEST_F(QuirkyModemTest, NumbersFormatsAndLinesItsOwnWayAndSaysVcon) {
    at("ATE0");
    at("AT+FCLASS=8");
    EXPECT_EQ(at("AT+VCID=1"), kERROR);
    EXPECT_THAT(at("AT+VSM=?"),
                StartsWith("\r\n128,\"8-BIT LINEAR\",8,0,(7200,8000,11025),(0),(0)\r\n"
                           "129,\"16-BIT LINEAR\",16,"));
    EXPECT_EQ(at("AT+VSM=1,8000"), kERROR);
    EXPECT_EQ(at("AT+VSM=128,8000"), kOK);
    EXPECT_EQ(at("AT+VLS=?"),
              "\r\n0,\"\",00000000,00000000,00000000\r\n1,\"L\",00000000,00000000,00000000\r\n"
              "2,\"T\",00000000,00000000,00000000\r\n" +
                  kOK);
    EXPECT_EQ(at("AT+VLS=1"), kOK);  // the local phone: still on hook
    EXPECT_FALSE(modem_.off_hook());
    EXPECT_EQ(at("AT+VLS=2"), "\r\nVCON\r\n");
    EXPECT_TRUE(modem_.off_hook());
    EXPECT_EQ(at("AT+VTX"), "\r\nCONNECT\r\n");
    EXPECT_EQ(host(kDle + "\x03"), "");
    EXPECT_EQ(advance(10ms), "\r\nVCON\r\n");
}

TEST_F(ModemTest, TransmitUndoesTheShieldingKeepsEveryByteAndAnswersWhenPlayedOut) {
    voice_off_hook();
    EXPECT_EQ(at("AT+VTX"), "\r\nCONNECT\r\n");
    EXPECT_EQ(modem_.state(), Modem::State::Transmit);
    // 8000 bytes: one second of audio; a DLE doubled, and split across writes.
    std::string audio(7996, '\x80');
    EXPECT_EQ(host("\x01" + kDle), "");
    EXPECT_EQ(host(kDle + "\x02" + kDle + "\x1a" + audio), "");  // <DLE><SUB>: two DLEs
    EXPECT_EQ(host(kDle + "\x03" + "AT\r"), "");  // the command waits for the playback
    EXPECT_EQ(advance(900ms), "");                // still playing
    EXPECT_EQ(advance(200ms), kOK + kOK);
    ASSERT_EQ(modem_.plays().size(), 1u);
    const Play& p = modem_.plays()[0];
    EXPECT_EQ(p.bytes, std::string("\x01\x10\x02\x10\x10", 5) + audio);
    EXPECT_TRUE(p.ended);
    EXPECT_EQ(p.discarded, 0u);
    EXPECT_EQ(modem_.take_log("<DLE><ETX>"), "<DLE><ETX> play=1 bytes=8001 discarded=0");
    // Back in command state.
    EXPECT_EQ(at("AT"), kOK);
}

TEST_F(ModemTest, CancelThrowsAwayWhatIsNotYetPlayed) {
    voice_off_hook();
    at("AT+VTX");
    host(std::string(8000, 'a'));  // one second
    advance(250ms);                // a quarter played
    host(kDle + "\x18");
    host("bb" + kDle + "\x03");
    EXPECT_EQ(advance(1ms), kOK);  // the buffer was emptied: done almost at once
    const Play& p = modem_.plays()[0];
    EXPECT_EQ(p.bytes, std::string(8000, 'a') + "bb");
    EXPECT_EQ(p.discarded, 6000u);
    EXPECT_EQ(p.cans, std::vector<size_t>{8000});
}

TEST_F(ModemTest, ReceiveDoublesDlesAndEndsOnDleBang) {
    voice_off_hook();
    at("AT+VSD=128,5");  // half a second of silence is reported
    modem_.set_record_source(std::string("\x11\x10\x12", 3));
    EXPECT_EQ(at("AT+VRX"), "\r\nCONNECT\r\n");
    std::string got = advance(1ms);  // 8 bytes
    EXPECT_EQ(got, std::string("\x11\x10\x10\x12\x80\x80\x80\x80\x80", 9));
    got = advance(999ms);
    EXPECT_EQ(got.size(), 7992u + 2u);  // silence, and <DLE>q once
    // After the 20 ms stream tick in which the silence reached 0.5 s.
    EXPECT_EQ(got.find(kDle + "q"), 4000u);
    EXPECT_EQ(host(kDle + "!"), kDle + "\x03" + kOK);
    EXPECT_EQ(modem_.records()[0].substr(0, 4), std::string("\x11\x10\x12\x80", 4));
    EXPECT_EQ(modem_.records()[0].size(), 8000u);
    EXPECT_EQ(modem_.take_log("<DLE>!"), "<DLE>! record=1 bytes=8000");
    EXPECT_EQ(at("AT"), kOK);
}

TEST_F(ModemTest, ReceiveMaySendTwoDlesAsDleSub) {
    modem_.quirks().dle_sub = true;
    voice_off_hook();
    modem_.set_record_source(std::string("\x10\x10\x10\x01", 4));
    at("AT+VRX");
    EXPECT_EQ(advance(1ms).substr(0, 7), kDle + "\x1a" + kDle + kDle + "\x01\x80\x80");
    host(kDle + "!");
}

TEST_F(ModemTest, RingsWithCallerIdOnceAndReportsEvents) {
    at("ATE0");
    at("AT+FCLASS=8;+VCID=1");
    modem_.set_caller_id(CallerId{"5551234", "JANE DOE"});
    modem_.ring(now_);
    std::string got = out_.take();
    EXPECT_THAT(got, StartsWith("\r\nRING\r\n\r\nDATE="));
    EXPECT_THAT(got, HasSubstr("\r\nNMBR=5551234\r\nNAME=JANE DOE\r\n"));
    modem_.ring(now_);
    EXPECT_EQ(out_.take(), "\r\nRING\r\n");

    modem_.quirks().nmbr_spaces = true;
    modem_.set_caller_id(CallerId{"P", "P"});
    modem_.ring(now_);
    EXPECT_THAT(out_.take(), HasSubstr("\r\nNMBR = P\r\nNAME = P\r\n"));

    modem_.send_digit('5');
    modem_.send_event('b');
    EXPECT_EQ(out_.take(), kDle + "5" + kDle + "b");
    modem_.quirks().dtmf_bracket = true;
    modem_.quirks().dtmf_repeat = 2;
    modem_.send_digit('#');
    EXPECT_EQ(out_.take(), kDle + "/" + kDle + "#" + kDle + "#" + kDle + "~");
}

TEST_F(ModemTest, NoCallerIdBlockUntilTheHostAsksForOne) {
    modem_.set_caller_id(CallerId{"5551234", ""});
    modem_.ring(now_);
    EXPECT_EQ(out_.take(), "\r\nRING\r\n");
}

TEST_F(ModemTest, DialAndTonesAnswerWhenDoneAndKeepWhatCameMeanwhile) {
    at("ATE0");
    at("AT+FCLASS=8");
    EXPECT_EQ(at("ATDT123;"), "");
    EXPECT_EQ(modem_.state(), Modem::State::Busy);
    EXPECT_EQ(host("AT\r"), "");           // waits for the dial
    EXPECT_EQ(advance(800ms), kOK + kOK);  // 0.5 s + 3 digits
    EXPECT_EQ(modem_.dialled(), "T123;");
    EXPECT_TRUE(modem_.off_hook());
    EXPECT_EQ(at("AT+VTS=[933,0,50]"), "");
    EXPECT_EQ(advance(400ms), "");
    EXPECT_EQ(advance(200ms), kOK);
}

TEST_F(ModemTest, AModemThatStopsAnsweringSaysNothingMore) {
    modem_.quirks().mute_at = "+VSM";
    at("ATE0");
    at("AT+FCLASS=8");
    EXPECT_EQ(at("AT+VSM=?"), "");
    EXPECT_EQ(at("AT"), "");
    EXPECT_EQ(modem_.take_log("AT+VSM"), "AT+VSM=?");
}

TEST_F(ModemTest, ControlCommandsDriveTheModemAndRefuseNonsense) {
    ControlContext ctx{modem_, [] {}};
    auto run = [&](const std::string& line) { return run_control(ctx, line, now_).text; };
    at("ATE0");
    EXPECT_EQ(run("digits 1#"), "ok sent digits 1#");
    EXPECT_EQ(out_.take(), kDle + "1" + kDle + "#");
    EXPECT_THAT(run("digits 1x"), StartsWith("error"));
    EXPECT_EQ(run("tone fax"), "ok sent <DLE>c");
    EXPECT_EQ(run("handset off"), "ok sent <DLE>H");
    EXPECT_EQ(out_.take(), kDle + "c" + kDle + "H");
    EXPECT_EQ(run("set vsm-error on"), "ok vsm-error on");
    EXPECT_THAT(run("set vsm-error maybe"), StartsWith("error"));
    EXPECT_THAT(run("set nonsense on"), StartsWith("error unknown quirk"));
    at("AT+FCLASS=8");
    EXPECT_EQ(at("AT+VSM=1,8000"), kERROR);
    EXPECT_EQ(run("played"), "error no such play");
    EXPECT_EQ(run("log"), "ok 3 lines\nATE0\nAT+FCLASS=8\nAT+VSM=1,8000");
}

}  // namespace
