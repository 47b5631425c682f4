// The line's translation between the daemon's protocol and the modem's
// bytes, against a modem scripted by the test, on a driven clock.

#include "v253/modem_line.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <filesystem>
#include <string>
#include <vector>

#include "lineio/protocol.h"
#include "test_support.h"
#include "v253/dle_codec.h"
#include "v253/tty_output.h"

using namespace std::string_literals;
using namespace std::chrono_literals;
using v253::ModemLine;

namespace {

struct Recorder final : v253::ModemLineOutput {
    std::string modem;                // everything sent to the modem, unread
    std::vector<std::string> daemon;  // messages to the daemon, unread
    void to_modem(std::string_view b) override { modem += b; }
    void drop_audio() override {}
    void to_daemon(const std::string& p) override { daemon.push_back(p); }
};

using kal::test::read_file;
using kal::test::write_file;

class ModemLineTest : public ::testing::Test {
  protected:
    // What the line sent the modem since the last look.
    std::string sent() { return std::exchange(out.modem, {}); }
    std::vector<std::string> events() { return std::exchange(out.daemon, {}); }
    void modem(const std::string& bytes) { line.on_modem_bytes(bytes, now); }
    void answer(const std::string& command, const std::string& reply) {
        ASSERT_EQ(sent(), command + "\r");
        modem(reply);
    }
    void advance(std::chrono::milliseconds d) {
        now += d;
        line.on_time(now);
    }
    void command(const std::string& payload) {
        line.on_command(payload.data(), payload.size(), now);
    }

    // The start-up dialogue of a modem that lists `vsm`.
    // (`started`: line.start() has been called already.)
    void start_up(const std::vector<std::string>& vsm, int vsm_choice,
                  const std::string& vls_line = "1,\"T\",00000000,00000000,00000000",
                  bool started = false) {
        if (!started)
            line.start(now);
        answer("ATZ", "\r\nOK\r\n");
        answer("ATE0", "ATE0\r\r\nOK\r\n");  // still echoing until then
        answer("AT+FCLASS=8", "\r\nOK\r\n");
        answer("AT+VCID=1", "\r\nOK\r\n");
        std::string list;
        for (const auto& l : vsm)
            list += "\r\n" + l;
        answer("AT+VSM=?", list + "\r\n\r\nOK\r\n");
        answer("AT+VSM=" + std::to_string(vsm_choice) + ",8000", "\r\nOK\r\n");
        answer("AT+VLS=?", "\r\n0,\"\",00000000,00000000,00000000\r\n" + vls_line + "\r\nOK\r\n");
        answer("AT+VSD=128,50", "\r\nOK\r\n");
        answer("AT+VIT=0", "\r\nOK\r\n");
        answer("AT", "\r\nOK\r\n");
        ASSERT_EQ(line.state(), ModemLine::State::Idle);
    }

    std::string audio_command(char c, const std::string& path, const std::string& stops,
                              int32_t length = 0, int32_t flags = 0) {
        lm::lm_audio_request r;
        r.path = path;
        r.stopString = stops;
        r.token = "101";
        r.length = length;
        r.flags = flags;
        return c == 'P' ? lm::cmd_play(r) : lm::cmd_record(r);
    }

    static lm::lm_audio_response reply_of(const std::string& payload) {
        return lm::parse_audio_response(payload.data(), payload.size());
    }

    kal::test::TempRoot root;
    std::string dir = root.path();
    v253::Clock::time_point now{std::chrono::seconds(1000)};
    Recorder out;
    ModemLine line{"test", out};
};

const std::vector<std::string> kConexantList = {"1,\"UNSIGNED PCM\",8,0,8000,0,0",
                                                "129,\"IMA ADPCM\",4,0,8000,0,0"};

TEST_F(ModemLineTest, PicksTheFormatByNameAndTheLineByLabel) {
    start_up({"128,\"8-BIT LINEAR\",8,0,(7200,8000,11025),(0),(0)",
              "1,\"SIGNED PCM\",8,0,(8000),(0),(0)"},
             128, "4,\"T\",00000000,00000000,00000000");
    EXPECT_FALSE(line.exit_status());
    modem("\r\nRING\r\n");
    EXPECT_EQ(events(), std::vector<std::string>{"R"});
    const std::string greeting = dir + "/g.raw";
    write_file(greeting, "\x80");
    command(audio_command('P', greeting, "#"));
    EXPECT_EQ(sent(), "AT+VLS=4\r");
}

TEST_F(ModemLineTest, ARefusedFormatEndsTheProgramAfterTryingTheKnownNumbers) {
    line.start(now);
    answer("ATZ", "\r\nOK\r\n");
    answer("ATE0", "\r\nOK\r\n");
    answer("AT+FCLASS=8", "\r\nOK\r\n");
    answer("AT+VCID=1", "\r\nERROR\r\n");  // no caller ID: not fatal
    answer("AT+VSM=?", "\r\nERROR\r\n");
    answer("AT#CID=1", "\r\nERROR\r\n");
    answer("AT+VSM=1,8000", "\r\nERROR\r\n");
    EXPECT_FALSE(line.exit_status());
    answer("AT+VSM=128,8000", "\r\nERROR\r\n");
    EXPECT_EQ(line.exit_status(), v253::kExitModemRefused);
}

TEST_F(ModemLineTest, CommandsDuringStartUpWaitForItInOrder) {
    line.start(now);
    command(lm::cmd_dial("5"));
    command(lm::cmd_hangup());
    start_up(kConexantList, 1, "1,\"T\",00000000,00000000,00000000", true);
    answer("ATDT5", "\r\nOK\r\n");
    answer("ATH", "\r\nOK\r\n");
}

TEST_F(ModemLineTest, AModemThatStopsAnsweringEndsTheProgram) {
    line.start(now);
    EXPECT_EQ(sent(), "ATZ\r");
    advance(9s);
    EXPECT_FALSE(line.exit_status());
    advance(1s);
    EXPECT_EQ(line.exit_status(), v253::kExitModemSilent);
}

TEST_F(ModemLineTest, RingAndCallerIdBecomeOneEventEach) {
    start_up(kConexantList, 1);
    modem("\r\nRING\r\n\r\nDATE = 0321\r\nTIME = 1405\r\nNMBR = 5551234\r\nNAME = JANE DOE\r\n");
    EXPECT_EQ(events(), std::vector<std::string>{"R"});
    advance(300ms);
    EXPECT_EQ(events(), std::vector<std::string>{"X5551234 JANE DOE\0"s});
    modem("\r\nRING\r\n");
    EXPECT_EQ(events(), std::vector<std::string>{"R"});
    // A private caller, and a block the next ring closes.
    modem("\r\nNMBR=P\r\n\r\nRING\r\n");
    EXPECT_EQ(events(), (std::vector<std::string>{"XPRIVATE\0"s, "R"}));
}

TEST_F(ModemLineTest, ModemEventsBecomeLineEvents) {
    start_up(kConexantList, 1);
    modem(
        "\x10H\x10/\x10"
        "5\x10"
        "5\x10~\x10"
        "c\x10h\x10$"s);
    EXPECT_EQ(events(), (std::vector<std::string>{"P", "#5", "c", "p"}));
}

TEST_F(ModemLineTest, PlaysAFileWithDlesDoubledAndAnswersComplete) {
    start_up(kConexantList, 1);
    const std::string path = dir + "/g.raw";
    write_file(path, "\x80\x10\x7f\x10"s);
    command(audio_command('P', path, "#"));
    EXPECT_EQ(events().size(), 1u);  // not ringing, nobody on the line
    modem("\r\nRING\r\n");
    events();
    command(audio_command('P', path, "#"));
    answer("AT+VLS=1", "\r\nVCON\r\n");  // some modems answer VCON
    answer("AT+VTX", "\r\nCONNECT\r\n");
    EXPECT_TRUE(line.wants_audio());
    EXPECT_EQ(line.next_audio(1024, now), "\x80\x10\x10\x7f\x10\x10"s);
    command(audio_command('P', path, "#"));  // busy with audio
    EXPECT_EQ(reply_of(events().at(0)).status, lm::kAudioBusy);
    EXPECT_EQ(line.next_audio(1024, now), "");
    EXPECT_EQ(sent(), "\x10\x03"s);
    modem("\r\nOK\r\n");
    auto ev = events();
    ASSERT_EQ(ev.size(), 1u);
    auto r = reply_of(ev[0]);
    EXPECT_EQ(r.token, "101");
    EXPECT_EQ(r.status, lm::kAudioComplete);
    EXPECT_EQ(r.extra, 4);
}

TEST_F(ModemLineTest, AStopDigitFlushesThePlayAndAnswersStoppedWithIt) {
    start_up(kConexantList, 1);
    const std::string path = dir + "/g.raw";
    write_file(path, std::string(4000, '\x80'));
    modem("\r\nRING\r\n");
    events();
    command(audio_command('P', path, "PplbdceJafhH*#"));
    answer("AT+VLS=1", "\r\nOK\r\n");
    answer("AT+VTX", "\r\nCONNECT\r\n");
    line.next_audio(1024, now);
    modem("\x10#"s);
    EXPECT_EQ(sent(), "\x10\x18\x10\x03"s);
    modem(
        "\x10"
        "4"s);  // while the modem stops
    EXPECT_TRUE(events().empty()) << "events go out once the audio has ended";
    modem("\r\nVCON\r\n");
    auto ev = events();
    ASSERT_EQ(ev.size(), 3u);
    EXPECT_EQ(ev[0], "##");
    EXPECT_EQ(ev[1], "#4");
    EXPECT_EQ(reply_of(ev[2]).status, lm::kAudioStopped);
    EXPECT_EQ(reply_of(ev[2]).stopChar, '#');
    EXPECT_EQ(line.state(), ModemLine::State::Idle);
}

TEST_F(ModemLineTest, RecordsTheModemsAudioUndoingDleDoubling) {
    start_up(kConexantList, 1);
    const std::string path = dir + "/m.raw";
    modem("\r\nRING\r\n");
    events();
    command(audio_command('R', path, "#", 60));
    answer("AT+VLS=1", "\r\nOK\r\n");
    ASSERT_EQ(sent(), "AT+VRX\r");
    modem("\r\nCONNECT\r\n\x0a\x80\x10\x10\x81\x10\x1a"s);  // the first byte is audio
    command(lm::cmd_cancel_audio());
    EXPECT_EQ(sent(), "\x10!"s);
    modem("\x82\x10\x03\r\nOK\r\n"s);
    auto ev = events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(reply_of(ev[0]).status, lm::kAudioStopped);
    EXPECT_EQ(reply_of(ev[0]).stopChar, 'X');
    EXPECT_EQ(read_file(path), "\x0a\x80\x10\x81\x10\x10\x82"s);
}

TEST_F(ModemLineTest, RecordingEndsAtItsLengthOrOnSilenceAndCanAppend) {
    start_up(kConexantList, 1);
    const std::string path = dir + "/m.raw";
    write_file(path, "old");
    command(audio_command('R', path, "s", 2, 0x40));
    EXPECT_EQ(reply_of(events().at(0)).status, lm::kAudioOnHook);
    command(lm::cmd_dial("5551234"));
    answer("ATDT5551234", "\r\nVCON\r\n");
    command(audio_command('R', path, "s", 2, 0x40));
    answer("AT+VRX", "\r\nCONNECT\r\n\x80"s);
    modem(std::string(15999, '\x81') + "\x82\x83");  // two seconds of audio, and more
    EXPECT_EQ(sent(), "\x10!"s);
    modem("\x84\x10\x03\r\nOK\r\n"s);
    EXPECT_EQ(reply_of(events().at(0)).status, lm::kAudioComplete);
    EXPECT_EQ(read_file(path), "old\x80" + std::string(15999, '\x81'));

    // A modem that sends too little is stopped by the clock.
    command(audio_command('R', path, "s", 1));
    answer("AT+VRX", "\r\nCONNECT\r\n\x80"s);
    advance(5999ms);
    EXPECT_EQ(sent(), "");
    advance(1ms);
    EXPECT_EQ(sent(), "\x10!"s);
    modem("\x10\x03\r\nOK\r\n"s);
    EXPECT_EQ(reply_of(events().at(0)).status, lm::kAudioComplete);

    command(audio_command('R', path, "s", 0));
    answer("AT+VRX", "\r\nCONNECT\r\n\x81"s);
    modem("\x10s"s);
    EXPECT_EQ(sent(), "\x10!"s);
    modem("\x10\x03\r\nOK\r\n"s);
    auto ev = events();
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[0], "s");
    EXPECT_EQ(reply_of(ev[1]).stopChar, 's');
    EXPECT_EQ(read_file(path), "\x81"s);
}

TEST_F(ModemLineTest, CallsAreAnsweredWithTheirTokenOnceDialled) {
    start_up(kConexantList, 1);
    lm::lm_call_request c;
    c.token = "tok-7";
    c.number = "555;\rH+++";  // nothing but dialable characters reaches the modem
    command(lm::cmd_call(c));
    answer("ATDT555", "\r\nOK\r\n");
    answer("AT", "\r\nOK\r\n");
    EXPECT_EQ(events(), std::vector<std::string>{"/tok-7\0"s});
    // Off hook, digits go as tones; a beep is a tone too.
    command(lm::cmd_dial("12"));
    answer("AT+VTS=1,2", "\r\nOK\r\n");
    command(lm::cmd_beep(1));
    answer("AT+VTS=[450,0,50]", "\r\nOK\r\n");
    // On hook, with nobody calling, there is nobody to beep at.
    command(lm::cmd_hangup());
    answer("ATH", "\r\nOK\r\n");
    command(lm::cmd_beep(1));
    EXPECT_EQ(sent(), "");
}

TEST_F(ModemLineTest, TheDeadmanHangsUpAndHangingUpEndsAudioFirst) {
    start_up(kConexantList, 1);
    const std::string path = dir + "/g.raw";
    write_file(path, std::string(100, '\x80'));
    command(lm::cmd_dial("1"));
    answer("ATDT1", "\r\nOK\r\n");
    command(lm::cmd_deadman(3));
    command(audio_command('P', path, ""));
    answer("AT+VTX", "\r\nCONNECT\r\n");
    line.next_audio(16, now);
    advance(3s);
    EXPECT_EQ(sent(), "\x10\x18\x10\x03"s);
    modem("\r\nOK\r\n");
    EXPECT_EQ(reply_of(events().at(0)).stopChar, 'X');
    answer("ATH", "\r\nOK\r\n");
    // A timed reversal is only logged.
    command(lm::cmd_trv(1, "x"));
    EXPECT_EQ(sent(), "");
}

TEST(TtyOutput, DroppingAudioNeverLeavesHalfADoubledDle) {
    v253::TtyOutput out;
    std::string wire;
    size_t room = 2;  // the port takes the sample and the pair's first DLE
    auto port = [&](const char* p, size_t n) -> ssize_t {
        n = std::min(n, room);
        if (n == 0) {
            errno = EAGAIN;
            return -1;
        }
        room -= n;
        wire.append(p, n);
        return static_cast<ssize_t>(n);
    };
    out.add_audio("\x80\x10\x10\x81\x10\x10"s);
    out.add_control(v253::kFlushPlay);
    ASSERT_TRUE(out.flush(port));
    EXPECT_EQ(wire, "\x80\x10"s);
    out.drop_audio();
    room = 100;
    ASSERT_TRUE(out.flush(port));
    EXPECT_EQ(wire, "\x80\x10\x10\x10\x18\x10\x03"s);  // the pair closed, then the flush
}

}  // namespace
