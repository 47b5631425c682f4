#pragma once

// The fixture of the kal-answer tests that run it as installed: the daemon
// with a fake adapter and the line simulator on a private bus, kal-answer as
// its own process with a configuration file, and helpers that play callers
// and read the outcome through kal-answer's D-Bus interface as kalctl does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <fstream>
#include <regex>

#include "../daemon/daemon_fixture.h"
#include "answer/answer_client.h"
#include "answer/audio.h"
#include "audio_fixture.h"

namespace kal::test {

using namespace kal::answer;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// The value of `key=` in a simulator's description of a command.
inline std::string field(const std::string& command, const std::string& key) {
    const std::regex re(key + "=(\"([^\"]*)\"|([^ ]*))");
    std::smatch m;
    if (!std::regex_search(command, m, re))
        return "";
    return m[2].matched ? m[2].str() : m[3].str();
}

class AnswerTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        ports_.add_adapter(1, "KL1001");
        start_daemon("Adding logtrasher thread", {"KAL_LINESIM_SPEED=100"});
        greetings_ = root_.path() + "/greetings";
        make_dirs(greetings_);
        make_dirs(root_.path() + "/etc");
        // A long greeting: the simulator plays it in a moment of real time
        // (100 times faster), and the caller must press a digit during it.
        write_tone(greetings_ + "/main.wav", 44100, 2, 60.0);
        write_tone(greetings_ + "/two.wav", 8000, 1, 1.0);
    }
    void TearDown() override {
        if (answer_) {
            answer_->signal(SIGTERM);
            const int status = answer_->wait_exit();
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        }
        stop_daemon();
    }

    void configure(const std::string& extra = "") {
        write_file(root_.path() + "/etc/kal-answer.conf",
                   "[answer]\nrings = 2\ngreeting = " + greetings_ +
                       "/main.wav\nmax_message_length = 3\nmin_message_length = 1\n" + extra +
                       "\n[mailbox 2]\ngreeting = " + greetings_ + "/two.wav\n");
    }
    // What the running (or last) kal-answer wrote to standard error.
    std::string answer_log() const {
        return read_file(root_.path() + "/answer-" + std::to_string(starts_) + ".txt");
    }
    int answer_count(const std::string& text) const {
        const std::string all = answer_log();
        int n = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
            ++n;
        return n;
    }
    // Starts kal-answer and waits until it has registered with the daemon.
    void start_answer() {
        ++starts_;
        answer_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{bin_path("kal-answer"), "--sounds", KAL_TEST_SOUNDS_DIR},
            std::vector<std::string>{"KAL_ANSWER_WEB=" KAL_SOURCE_DIR "/data/web"},
            root_.path() + "/answer-" + std::to_string(starts_) + ".txt");
        ASSERT_TRUE(wait_for([&] { return answer_count("registered with kaldevicemaster") >= 1; }))
            << answer_log();
    }
    // Two rings with caller ID: the simulator's command that answered.
    std::string ring_until_answered(LineSimControl& line, const std::string& callerId) {
        EXPECT_THAT(line.send("clear"), StartsWith("ok"));
        if (!callerId.empty())
            line.send("callerid " + callerId);
        line.send("ring");
        line.send("ring");
        return line.send("wait-command P 20");
    }
    // A whole message: the rings, the greeting, the recording (3 s), and the
    // hang-up kal-answer asks for after it, so that it cannot reach the
    // next call. `digit` picks a mailbox at the greeting ("" leaves it in
    // the default one). Returns the greeting's play command.
    std::string leave_message(LineSimControl& line, const std::string& callerId,
                              const std::string& digit = "") {
        const std::string greeting = ring_until_answered(line, callerId);
        EXPECT_THAT(greeting, StartsWith("ok P ")) << answer_log();
        if (!digit.empty()) {
            line.send("digits " + digit);
            EXPECT_THAT(line.send("wait-command P 20"), StartsWith("ok P ")) << answer_log();
        }
        EXPECT_THAT(line.send("wait-command R 20"), StartsWith("ok R ")) << answer_log();
        EXPECT_THAT(line.send("wait-command H 20"), StartsWith("ok H")) << answer_log();
        return greeting;
    }
    // The owner's call up to the PIN prompt: the rings, * at the greeting.
    void call_in_for_pin(LineSimControl& line) {
        ASSERT_THAT(ring_until_answered(line, ""), StartsWith("ok P ")) << answer_log();
        line.send("digits *");
        EXPECT_THAT(line.send("wait-command P 20"), HasSubstr("enter-pin.raw")) << answer_log();
    }
    // Waits until the newest call in the log has ended with `outcome`.
    void last_call_ends(const std::string& outcome) {
        AnswerClient client;
        EXPECT_TRUE(wait_for([&] { return client.listCalls()[0].outcome == outcome; }))
            << answer_log();
    }
    // Presses `key` while a menu of the remote check plays: the check takes
    // keys only as what stops its audio, so a key that falls between two
    // plays (a busy machine) is pressed again during the next one. Returns
    // the reply that stopped the audio.
    std::string press_during_menu(LineSimControl& line, const std::string& key) {
        for (int tries = 0; tries < 8; ++tries) {
            const std::string reply = line.send("digits " + key);
            if (reply.find("stopped audio") != std::string::npos)
                return reply;
            line.send("wait-command P 20");  // the menu again
        }
        ADD_FAILURE() << "no menu took " << key << "\n" << answer_log();
        return "";
    }
    std::vector<MessageInfo> messages_when(size_t count) {
        AnswerClient client;
        std::vector<MessageInfo> out;
        EXPECT_TRUE(wait_for([&] {
            out = client.listMessages();
            return out.size() >= count;
        })) << answer_log();
        return out;
    }
    // The WAV of a message, fetched as kalctl does: a descriptor over D-Bus.
    AudioInfo fetch(int64_t id) {
        AnswerClient client;
        unique_fd fd = client.openMessage(id);
        const std::string copy = root_.path() + "/fetched-" + std::to_string(id) + ".wav";
        std::ofstream out(copy, std::ios::binary);
        char buf[4096];
        ssize_t n;
        while ((n = ::read(fd.get(), buf, sizeof buf)) > 0)
            out.write(buf, n);
        out.close();
        return probe_audio(copy);
    }

    struct Outcome {
        int status;
        std::string out;
    };
    // kalctl as a person runs it.
    Outcome kalctl(const std::vector<std::string>& args) {
        const std::string out = root_.path() + "/kalctl.out";
        std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$0\" \"$@\" >\"$KALCTL_OUT\"",
                                         bin_path("kalctl")};
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess p(argv, {"KALCTL_OUT=" + out}, root_.path() + "/kalctl.err");
        const int status = p.wait_exit();
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                read_file(out) + read_file(root_.path() + "/kalctl.err")};
    }

    std::string greetings_;
    std::unique_ptr<ChildProcess> answer_;
    int starts_ = 0;
};

}  // namespace kal::test
