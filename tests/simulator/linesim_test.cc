// The line-monitor simulator as the daemon sees it (started with its socket
// on descriptor 4, given the orders record and framed commands, answering
// with framed events) and as a test drives it (its control socket).

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <optional>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "linesim_control.h"
#include "test_support.h"

extern char** environ;

using namespace kal;
using namespace kal::test;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr char kSerial[] = "SIM1";
constexpr int32_t kHour = 3600 * lm::kAudioBytesPerSecond;

// A simulator started the way the daemon starts a line monitor.
class SimulatedLine {
  public:
    SimulatedLine(const std::string& program, const std::string& argv0, const std::string& serial,
                  const std::string& extra = "per adapter text") {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
            throw std::runtime_error("socketpair");
        std::vector<std::string> env;
        for (char** e = environ; *e; ++e)
            env.emplace_back(*e);
        env.emplace_back("KAL_LINESIM_SPEED=100");
        std::vector<char*> envp;
        for (auto& s : env)
            envp.push_back(s.data());
        envp.push_back(nullptr);
        std::vector<std::string> args = {argv0, "-QLXLine", "/dev/ttyUSB0", "-QLXSerial", serial};
        std::vector<char*> argv;
        for (auto& s : args)
            argv.push_back(s.data());
        argv.push_back(nullptr);

        pid_ = fork();
        if (pid_ < 0)
            throw std::runtime_error("fork");
        if (pid_ == 0) {
            if (sv[1] == 4)
                fcntl(4, F_SETFD, 0);
            else if (dup2(sv[1], 4) != 4)
                _exit(126);
            if (sv[1] != 3 && sv[0] != 3)
                close(3);
            close_range(5, ~0U, 0);
            execve(program.c_str(), argv.data(), envp.data());
            _exit(127);
        }
        close(sv[1]);
        fd_.reset(sv[0]);
        lm::lm_orders orders{"/dev/ttyUSB0", serial, extra};
        std::string record = lm::build_orders(orders);
        safe_write(fd_.get(), record.data(), record.size());
    }
    ~SimulatedLine() {
        if (!reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    void send(const std::string& payload) { dmp_write(fd_.get(), payload.data(), payload.size()); }
    void close_line() { fd_.reset(); }
    int fd() const { return fd_.get(); }
    pid_t pid() const { return pid_; }

    // The next message, or nothing when none comes in time or the line ended.
    std::optional<std::string> next_event(std::chrono::milliseconds deadline = 10s) {
        struct pollfd p = {fd_.get(), POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(deadline.count())) <= 0)
            return std::nullopt;
        char buf[lm::kEventBufferSize];
        ssize_t n = dmp_read(fd_.get(), buf, sizeof buf, -1);
        if (n <= 0)
            return std::nullopt;
        return std::string(buf, static_cast<size_t>(n));
    }

    int wait_exit() {
        int status = -1;
        if (wait_for([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }))
            reaped_ = true;
        return status;
    }

  private:
    kal::unique_fd fd_;
    pid_t pid_ = -1;
    bool reaped_ = false;
};

lm::lm_audio_request audio_request(const std::string& path, const std::string& stop,
                                   const std::string& token) {
    lm::lm_audio_request r;
    r.path = path;
    r.stopString = stop;
    r.token = token;
    return r;
}

std::string play(const std::string& path, const std::string& stop, const std::string& token,
                 int32_t pause = 0) {
    auto r = audio_request(path, stop, token);
    struct stat st;
    r.length = lm::play_length_seconds(::stat(path.c_str(), &st) == 0 ? st.st_size : 0);
    r.postPlayPause = pause;
    return lm::cmd_play(r);
}

std::string record(const std::string& path, const std::string& stop, const std::string& token,
                   int32_t seconds, const std::string& dial = "", int32_t flags = 0) {
    auto r = audio_request(path, stop, token);
    r.length = seconds;
    r.firstDialing = dial;
    r.flags = flags;
    return lm::cmd_record(r);
}

// The `^` record in `ev`, with type 0 when `ev` is not one.
lm::lm_audio_response audio_reply(const std::optional<std::string>& ev) {
    if (!ev || ev->size() != lm::lm_audio_response::kSize || (*ev)[0] != lm::kEvtAudio) {
        lm::lm_audio_response none;
        none.type = 0;
        return none;
    }
    return lm::parse_audio_response(ev->data(), ev->size());
}

MATCHER_P3(IsAudioReply, token, status, stop_char, "") {
    auto r = audio_reply(arg);
    *result_listener << "type '" << r.type << "' token '" << r.token << "' status " << r.status
                     << " stop '" << r.stopChar << "'";
    return r.type == lm::kEvtAudio && r.token == token && r.status == status &&
           r.stopChar == stop_char;
}

long long file_size(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// A file that plays for an hour without taking up the disk.
std::string hour_long_file(const std::string& path) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, kHour) != 0)
        throw std::runtime_error("sparse file");
    close(fd);
    return path;
}

class LineSimTest : public ::testing::Test {
  protected:
    void SetUp() override {
        line_ = std::make_unique<SimulatedLine>(bin_path("kal-linesim"), "KALLineMonitor", kSerial);
        ctl_ = std::make_unique<LineSimControl>(kSerial);
        ASSERT_TRUE(ctl_->connected()) << ctl_->send("status");
    }

    std::string path(const std::string& name) const { return root_.path() + "/" + name; }
    std::string hour() const { return hour_long_file(path("hour.raw")); }
    // Picks up the handset, so that the line takes audio.
    void off_hook() {
        ASSERT_EQ(ctl_->send("offhook"), "ok sent P");
        ASSERT_EQ(line_->next_event(), "P");
    }

    TempRoot root_;
    std::unique_ptr<SimulatedLine> line_;
    std::unique_ptr<LineSimControl> ctl_;
};

// --- Start-up --------------------------------------------------------------

class ProgramNameTest : public ::testing::TestWithParam<const char*> {};

TEST_P(ProgramNameTest, RunsAsEitherLineMonitorAndReadsTheOrdersFromDescriptorFour) {
    TempRoot root;
    install_linesim();
    const std::string name = GetParam();
    SimulatedLine line(resources_dir() + "/" + name, name, "QLX 7/b");
    // Bytes of the serial that do not belong in a file name become '_'.
    EXPECT_EQ(linesim_socket("QLX 7/b"), root.path() + "/run/kal-linesim/QLX_7_b.sock");
    LineSimControl ctl("QLX 7/b");
    EXPECT_EQ(ctl.send("orders"),
              "ok fd=4 line=/dev/ttyUSB0 serial=\"QLX 7/b\" extra=\"per adapter text\" program=" +
                  name + " argv-line=/dev/ttyUSB0 argv-serial=\"QLX 7/b\"");
}

INSTANTIATE_TEST_SUITE_P(BothPrograms, ProgramNameTest,
                         ::testing::Values("KALLineMonitor", "ZRXLineMonitor"));

// --- Play ------------------------------------------------------------------

TEST_F(LineSimTest, PlayAnswersARingingLineAndCompletesWithTheTokenAndLength) {
    write_file(path("two.raw"), std::string(2 * lm::kAudioBytesPerSecond, '\x80'));
    ASSERT_EQ(ctl_->send("ring"), "ok sent R");
    ASSERT_EQ(line_->next_event(), "R");

    line_->send(play(path("two.raw"), "Pplb", "12", 1));
    auto done = line_->next_event();
    EXPECT_THAT(done, IsAudioReply("12", lm::kAudioComplete, '\0'));
    EXPECT_EQ(audio_reply(done).extra, 2 * lm::kAudioBytesPerSecond);
    EXPECT_EQ(ctl_->send("wait-command P"),
              "ok P path=" + path("two.raw") + " stop=Pplb token=12 flags=0x0 length=2 pause=1");
    EXPECT_THAT(ctl_->send("status"), AllOf(HasSubstr("hook=on seized=yes ringing=no audio=none")));
}

TEST_F(LineSimTest, AudioIsRefusedOnAnIdleLineAndForFilesItCannotUse) {
    write_file(path("ok.raw"), "abc");
    line_->send(play(path("ok.raw"), "p", "1"));
    EXPECT_THAT(line_->next_event(), IsAudioReply("1", lm::kAudioOnHook, '\0'));
    line_->send(record(path("rec.raw"), "p", "2", 5));
    EXPECT_THAT(line_->next_event(), IsAudioReply("2", lm::kAudioOnHook, '\0'));
    EXPECT_FALSE(file_exists(path("rec.raw")));

    off_hook();
    line_->send(play(path("missing.raw"), "p", "3"));
    EXPECT_THAT(line_->next_event(), IsAudioReply("3", lm::kAudioInvalidFile, '\0'));
    line_->send(play(root_.path(), "p", "4"));  // a directory
    EXPECT_THAT(line_->next_event(), IsAudioReply("4", lm::kAudioInvalidFile, '\0'));
    line_->send(record(path("no/such/dir.raw"), "p", "5", 5));
    EXPECT_THAT(line_->next_event(), IsAudioReply("5", lm::kAudioInvalidFile, '\0'));
}

TEST_F(LineSimTest, AudioWhileBusyIsRefusedAndTheRunningOneGoesOn) {
    off_hook();
    line_->send(play(hour(), "p", "1"));
    line_->send(play(hour(), "p", "2"));
    EXPECT_THAT(line_->next_event(), IsAudioReply("2", lm::kAudioBusy, '\0'));
    line_->send(record(path("rec.raw"), "p", "3", 5));
    EXPECT_THAT(line_->next_event(), IsAudioReply("3", lm::kAudioBusy, '\0'));
    EXPECT_THAT(ctl_->send("status"), HasSubstr("audio=play token=1 "));

    ASSERT_THAT(ctl_->send("finish"), StartsWith("ok sent ^ token=1 status=3 (complete)"));
    auto done = line_->next_event();
    EXPECT_THAT(done, IsAudioReply("1", lm::kAudioComplete, '\0'));
    EXPECT_EQ(audio_reply(done).extra, kHour);
}

TEST_F(LineSimTest, AStopStringEventIsSentFirstThenEndsTheAudio) {
    off_hook();
    line_->send(play(hour(), "3Pplb", "7"));
    EXPECT_EQ(ctl_->send("digits 9"), "ok sent # digit=9");  // not in the stop string
    EXPECT_EQ(line_->next_event(), "#9");
    EXPECT_EQ(ctl_->send("digits 3"), "ok sent # digit=3; stopped audio token=7");
    EXPECT_EQ(line_->next_event(), "#3");
    EXPECT_THAT(line_->next_event(), IsAudioReply("7", lm::kAudioStopped, '3'));

    line_->send(play(hour(), "Pplb", "8"));
    EXPECT_EQ(ctl_->send("tone busy"), "ok sent b; stopped audio token=8");
    EXPECT_EQ(line_->next_event(), "b");
    EXPECT_THAT(line_->next_event(), IsAudioReply("8", lm::kAudioStopped, 'b'));
    EXPECT_THAT(ctl_->send("status"), HasSubstr("audio=none"));
}

TEST_F(LineSimTest, CancelAndHangUpEndAudioWithStopCharacterX) {
    off_hook();
    line_->send(lm::cmd_cancel_audio());  // nothing running: nothing to say
    ASSERT_EQ(ctl_->send("ring"), "ok sent R");
    EXPECT_EQ(line_->next_event(), "R");

    line_->send(play(hour(), "p", "5"));
    line_->send(lm::cmd_cancel_audio());
    EXPECT_THAT(line_->next_event(), IsAudioReply("5", lm::kAudioStopped, 'X'));

    line_->send(record(path("rec.raw"), "p", "6", 0, "123"));
    line_->send(lm::cmd_hangup());
    EXPECT_THAT(line_->next_event(), IsAudioReply("6", lm::kAudioStopped, 'X'));
    // The line monitor let go of the line; the handset is still off hook.
    EXPECT_THAT(ctl_->send("status"), HasSubstr("hook=off seized=no"));
}

TEST_F(LineSimTest, AnExpiredDeadmanHangsUpAndDisarmingStopsIt) {
    line_->send(lm::cmd_deadman(30));
    EXPECT_THAT(ctl_->send("status"), ContainsRegex("deadman=(29|30)\\.[0-9]s"));
    line_->send(lm::cmd_deadman(0));
    EXPECT_THAT(ctl_->send("status"), HasSubstr("deadman=off"));

    line_->send(record(path("rec.raw"), "p", "9", 0, "5551234"));
    line_->send(lm::cmd_deadman(1));
    EXPECT_THAT(line_->next_event(), IsAudioReply("9", lm::kAudioStopped, 'X'));
    EXPECT_THAT(ctl_->send("status"), AllOf(HasSubstr("seized=no"), HasSubstr("deadman=expired")));
}

// --- Record ----------------------------------------------------------------

TEST_F(LineSimTest, RecordWritesEightThousandBytesASecondOfTone) {
    off_hook();
    line_->send(record(path("rec.raw"), "p", "4", 3));
    auto done = line_->next_event();
    EXPECT_THAT(done, IsAudioReply("4", lm::kAudioComplete, '\0'));
    EXPECT_EQ(audio_reply(done).extra, 3 * lm::kAudioBytesPerSecond);
    std::string audio = read_file(path("rec.raw"));
    ASSERT_EQ(audio.size(), 3u * lm::kAudioBytesPerSecond);
    auto [lo, hi] = std::minmax_element(audio.begin(), audio.end(), [](char a, char b) {
        return static_cast<unsigned char>(a) < static_cast<unsigned char>(b);
    });
    EXPECT_LT(static_cast<unsigned char>(*lo), 128);  // a tone, not silence
    EXPECT_GT(static_cast<unsigned char>(*hi), 128);

    // Flag 0x40 appends to what is there.
    write_file(path("old.raw"), std::string(100, 'B'));
    line_->send(record(path("old.raw"), "p", "5", 2, "", 0x1CC));
    EXPECT_THAT(line_->next_event(), IsAudioReply("5", lm::kAudioComplete, '\0'));
    audio = read_file(path("old.raw"));
    EXPECT_EQ(audio.size(), 100u + 2 * lm::kAudioBytesPerSecond);
    EXPECT_EQ(audio.substr(0, 100), std::string(100, 'B'));
}

TEST_F(LineSimTest, ARecordThatDialsFirstRunsUntilAStopEventAndKeepsWhatItWrote) {
    // No ring and no handset: dialling out seizes the line.
    line_->send(record(path("dial.raw"), "PplbehHJafsq", "11", 0, "5551234"));
    ASSERT_TRUE(wait_for([&] { return file_size(path("dial.raw")) >= 8000; }));
    EXPECT_THAT(ctl_->send("status"),
                AllOf(HasSubstr("seized=yes"), HasSubstr("audio=record token=11"),
                      HasSubstr("dialed=5551234")));

    EXPECT_EQ(ctl_->send("silence"), "ok sent s; stopped audio token=11");
    EXPECT_EQ(line_->next_event(), "s");
    auto stopped = line_->next_event();
    EXPECT_THAT(stopped, IsAudioReply("11", lm::kAudioStopped, 's'));
    EXPECT_EQ(audio_reply(stopped).extra, file_size(path("dial.raw")));
    EXPECT_THAT(ctl_->send("wait-command R"), HasSubstr(" length=0 dial=5551234"));
}

// --- Other commands ----------------------------------------------------------

TEST_F(LineSimTest, ACallRequestIsAnsweredWithCallPlacedAndTheToken) {
    line_->send(lm::cmd_call({"tok-1", "5551234"}));
    EXPECT_EQ(line_->next_event(), std::string("/tok-1\0", 7));
    EXPECT_EQ(ctl_->send("wait-command C"), "ok C token=tok-1 number=5551234");
    EXPECT_THAT(ctl_->send("status"), HasSubstr("seized=yes"));

    line_->send(lm::cmd_dial("12#"));
    line_->send(lm::cmd_beep(1));
    line_->send(lm::cmd_trv(2, "call waiting"));
    EXPECT_EQ(ctl_->send("commands"),
              "ok 4 commands\nC token=tok-1 number=5551234\nD digits=12#\n! type=1\n"
              "V vls=2 text=\"call waiting\"");
}

TEST_F(LineSimTest, MalformedAndUnknownCommandsAreRecordedAndIgnored) {
    line_->send(std::string("H\0\0", 3));
    line_->send("P" + std::string(100, '\0'));
    line_->send("Zab");
    ASSERT_EQ(ctl_->send("ring"), "ok sent R");
    EXPECT_EQ(line_->next_event(), "R");  // no reply to any of them came first
    std::string commands = ctl_->send("commands");
    EXPECT_THAT(commands, StartsWith("ok 3 commands\nH malformed length=3 expected=2 hex=480000\n"
                                     "P malformed length=101 expected=1629 hex=5000"));
    EXPECT_THAT(commands, HasSubstr("\nZ unknown length=3 hex=5a6162"));
}

// --- The control socket ------------------------------------------------------

TEST_F(LineSimTest, ControlCommandsSendTheirEvents) {
    lm::lm_audio_response by_hand;
    by_hand.token = "42";
    by_hand.status = 3;
    by_hand.stopChar = 'p';
    const std::pair<std::string, std::string> cases[] = {
        {"ring", "R"},
        {"callerid Jane Doe 555", std::string("XJane Doe 555\0", 14)},
        {"callerid", "X"},
        {"tone fax", "c"},
        {"tone dial", "d"},
        {"tone busy", "b"},
        {"tone data", "e"},
        {"offhook", "P"},
        {"onhook", "p"},
        {"reversal", "l"},
        {"silence", "s"},
        {"signal", "S"},
        {"flow on", "o"},
        {"flow off", "u"},
        {"event J", "J"},
        {"event 0x2a", "*"},
        {"event q two words", std::string("qtwo words\0", 11)},
        {"frame 5a0001", std::string("Z\0\x01", 3)},
        {"reply 42 3 p", lm::build_audio_response(by_hand)},
    };
    for (const auto& [command, payload] : cases) {
        EXPECT_THAT(ctl_->send(command), StartsWith("ok sent")) << command;
        EXPECT_EQ(line_->next_event(), payload) << command;
    }
    EXPECT_EQ(ctl_->send("digits 1*#D"),
              "ok sent # digit=1, sent # digit=*, sent # digit=#, sent # digit=D");
    for (const char* digit : {"#1", "#*", "##", "#D"})
        EXPECT_EQ(line_->next_event(), digit);
}

TEST_F(LineSimTest, BadControlCommandsAnswerErrorsAndSendNothing) {
    EXPECT_EQ(ctl_->send("bogus"), "error unknown command 'bogus' (try help)");
    EXPECT_THAT(ctl_->send("digits 12x"), StartsWith("error "));
    EXPECT_THAT(ctl_->send("tone loud"), StartsWith("error "));
    EXPECT_THAT(ctl_->send("raw 0g"), StartsWith("error "));
    EXPECT_THAT(ctl_->send("raw 012"), StartsWith("error "));
    EXPECT_THAT(ctl_->send("exit 256"), StartsWith("error "));
    EXPECT_THAT(ctl_->send("crash chld"), StartsWith("error "));
    EXPECT_EQ(ctl_->send("stop X"), "error no audio is running");
    EXPECT_EQ(ctl_->send("sent"), "ok 0 messages");
    EXPECT_THAT(ctl_->send("help"), AllOf(StartsWith("ok "), HasSubstr("\nwait-command")));
}

TEST_F(LineSimTest, RawBytesGoOutUnframed) {
    ASSERT_EQ(ctl_->send("raw 01 02 ff"), "ok sent 3 raw bytes");
    char buf[3];
    ASSERT_EQ(recv(line_->fd(), buf, sizeof buf, MSG_WAITALL), 3);
    EXPECT_EQ(std::string(buf, 3), "\x01\x02\xff");
    EXPECT_EQ(ctl_->send("sent"), "ok 1 messages\nraw hex=0102ff");
}

TEST_F(LineSimTest, WaitCommandReturnsEachCommandOnceAndWaitsForOneToCome) {
    line_->send(lm::cmd_dial("1"));
    line_->send(lm::cmd_dial("2"));
    line_->send(lm::cmd_hangup());
    EXPECT_EQ(ctl_->send("wait-command D"), "ok D digits=1");
    EXPECT_EQ(ctl_->send("wait-command D"), "ok D digits=2");
    EXPECT_EQ(ctl_->send("wait-command D 0.05"), "error timed out waiting for command D");
    EXPECT_EQ(ctl_->send("wait-command any"), "ok H");

    ctl_->request("wait-command C 20");
    LineSimControl other(kSerial);
    EXPECT_EQ(other.send("status").substr(0, 3), "ok ");  // the wait blocks only its own client
    line_->send(lm::cmd_call({"t", "9"}));
    EXPECT_EQ(ctl_->reply(), "ok C token=t number=9");
    EXPECT_EQ(ctl_->send("commands"),
              "ok 4 commands\nD digits=1\nD digits=2\nH\nC token=t number=9");
}

// --- How it ends ---------------------------------------------------------------

TEST_F(LineSimTest, ExitEndsWithTheGivenStatusAndRemovesTheSocket) {
    EXPECT_EQ(ctl_->send("exit 7"), "ok exiting with status 7");
    int status = line_->wait_exit();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_FALSE(file_exists(linesim_socket(kSerial)));
    EXPECT_EQ(line_->next_event(), std::nullopt);  // end of file
}

TEST_F(LineSimTest, TheEndOfTheLineSocketEndsItWithStatusZero) {
    line_->close_line();
    int status = line_->wait_exit();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_FALSE(file_exists(linesim_socket(kSerial)));
}

TEST_F(LineSimTest, AFrameTooLongForACommandEndsItWithStatusOne) {
    int32_t huge = 1 << 24;
    safe_write(line_->fd(), &huge, sizeof huge);
    int status = line_->wait_exit();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST_F(LineSimTest, UsrOneIsCountedAndTermEndsItByThatSignal) {
    kill(line_->pid(), SIGUSR1);
    EXPECT_THAT(ctl_->send("status"), HasSubstr("usr1=1"));
    kill(line_->pid(), SIGTERM);
    int status = line_->wait_exit();
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
    EXPECT_FALSE(file_exists(linesim_socket(kSerial)));
}

class CrashTest : public LineSimTest,
                  public ::testing::WithParamInterface<std::pair<const char*, int>> {};

TEST_P(CrashTest, CrashDiesByTheSignalWithoutACore) {
    auto [name, sig] = GetParam();
    EXPECT_THAT(ctl_->send(std::string("crash ") + name),
                StartsWith("ok crashing with signal " + std::to_string(sig)));
    int status = line_->wait_exit();
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), sig);
    EXPECT_FALSE(WCOREDUMP(status));
}

INSTANTIATE_TEST_SUITE_P(Signals, CrashTest,
                         ::testing::Values(std::pair{"segv", SIGSEGV},
                                           std::pair{"SIGABRT", SIGABRT}, std::pair{"9", SIGKILL}));

// --- The command-line client -----------------------------------------------------

TEST_F(LineSimTest, TheCtlCommandExitsZeroOneOrTwo) {
    auto run = [](std::vector<std::string> args) {
        args.insert(args.begin(), {bin_path("kal-linesim"), "ctl"});
        ChildProcess ctl(args, {}, "/dev/null");
        return ctl.wait_exit();
    };
    int status = run({kSerial, "callerid", "Jane", "Doe"});
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(line_->next_event(), std::string("XJane Doe\0", 10));
    status = run({kSerial, "digits", "x"});
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    status = run({"NOSUCHLINE", "status"});
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
}

}  // namespace
