#include "log/kallog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>

#include "base/clock.h"
#include "base/paths.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class KallogTest : public ::testing::Test {
  protected:
    void SetUp() override { set_clock(&clock_); }
    void TearDown() override { set_clock(nullptr); }

    std::string log_path() const { return log_dir() + "/KALDeviceMaster"; }
    std::string log_text() const { return read_file(log_path()); }
    void write_level_file(const std::string& bytes) { write_file(debuglevel_path(), bytes); }
    // What `body` writes to standard error (descriptor 2 and the stream).
    std::string stderr_of(const std::function<void()>& body) {
        const std::string captured = root_.path() + "/stderr.txt";
        int saved = dup(2);
        if (freopen(captured.c_str(), "w", stderr) == nullptr) {
            ADD_FAILURE() << "could not capture standard error";
            return "";
        }
        body();
        fflush(stderr);
        dup2(saved, 2);
        close(saved);
        return read_file(captured);
    }

    TempRoot root_;
    ManualClock clock_{time(nullptr)};
};

TEST_F(KallogTest, ThresholdFileIsABinaryByteNotADigit) {
    write_level_file("5");  // the character '5' is byte 53: out of range
    kallogregister("KALDeviceMaster");
    EXPECT_EQ(kalgetcurrentloglevel(), 7u);
    EXPECT_THAT(log_text(), HasSubstr("kallog: read bad level char 53 from " + debuglevel_path()));
}

TEST_F(KallogTest, ThresholdByteFiveMeansNotice) {
    write_level_file(std::string(1, '\x05'));
    kallogregister("KALDeviceMaster");
    EXPECT_EQ(kalgetcurrentloglevel(), 5u);
    kallog(KAL_INFO, "info is dropped");
    kallog(KAL_NOTICE, "notice is kept");
    EXPECT_THAT(log_text(), Not(HasSubstr("info is dropped")));
    EXPECT_THAT(log_text(), HasSubstr("] NOTICE: notice is kept\n"));
}

TEST_F(KallogTest, ThresholdBytesStopAtEightForDevel) {
    write_level_file(std::string(1, '\x09'));
    kallogregister("KALDeviceMaster");
    EXPECT_EQ(kalgetcurrentloglevel(), 7u) << "nine is refused";
    kallog(KAL_DEVEL, "devel is dropped");

    write_level_file(std::string(1, '\x08'));
    kallogreadlevelfromfile();
    EXPECT_EQ(kalgetcurrentloglevel(), 8u) << "eight is accepted";
    kallog(KAL_DEVEL, "devel is kept");

    const std::string text = log_text();
    EXPECT_THAT(text, HasSubstr("kallog: read bad level char 9 from " + debuglevel_path()));
    EXPECT_THAT(text, Not(HasSubstr("devel is dropped")));
    EXPECT_THAT(text, HasSubstr("] DEVEL: devel is kept\n"));
}

TEST_F(KallogTest, EmptyThresholdFileIsReportedAndChangesNothing) {
    write_level_file("");
    kallogregister("KALDeviceMaster");
    EXPECT_EQ(kalgetcurrentloglevel(), 7u);
    EXPECT_THAT(log_text(), HasSubstr("kallog: read bad level char -1 from "));
}

TEST_F(KallogTest, DefaultThresholdKeepsDebugAndDropsDevel) {
    kallogregister("KALDeviceMaster");
    kallog(KAL_DEBUG, "debug %d", 1);
    kallog(KAL_DEVEL, "devel %d", 2);
    EXPECT_THAT(log_text(), HasSubstr("] DEBUG: debug 1\n"));
    EXPECT_THAT(log_text(), Not(HasSubstr("devel 2")));
}

// Lines share the time text of their second, and a line of another second,
// later or earlier, gets its own.
TEST_F(KallogTest, EveryLineIsStampedWithItsOwnSecond) {
    kallogregister("KALDeviceMaster");
    const auto prefix = [](time_t t) {
        char text[64];
        ctime_r(&t, text);
        text[strcspn(text, "\n")] = '\0';
        return std::string(text) + " KALDeviceMaster[" + std::to_string(getpid()) + "] DEBUG: ";
    };
    const time_t t0 = clock_.now();
    kallog(KAL_DEBUG, "first");
    kallog(KAL_DEBUG, "second");
    clock_.advance(1);
    kallog(KAL_DEBUG, "third");
    clock_.set(t0 - 60);
    kallog(KAL_DEBUG, "fourth");
    const std::string text = log_text();
    EXPECT_THAT(text, HasSubstr(prefix(t0) + "first\n" + prefix(t0) + "second\n" + prefix(t0 + 1) +
                                "third\n" + prefix(t0 - 60) + "fourth\n"));
}

TEST_F(KallogTest, ForcedevelMarkerOverridesEveryLevelChange) {
    write_file(forcedevel_marker(), "");
    write_level_file(std::string(1, '\x03'));
    kallogregister("KALDeviceMaster");
    EXPECT_EQ(kalgetcurrentloglevel(), 8u);
    kalsetcurrentloglevel(3);
    EXPECT_EQ(kalgetcurrentloglevel(), 8u);
    EXPECT_THAT(log_text(), HasSubstr("===== DEBUG LEVEL SET TO DEVEL ====="));
}

TEST_F(KallogTest, OutOfRangeLevelIsStoredAndNamedUnknown) {
    kallogregister("KALDeviceMaster");
    kalsetcurrentloglevel(12);
    EXPECT_EQ(kalgetcurrentloglevel(), 12u);
    kallog(KAL_DEVEL, "devel kept");
    kallog(-1, "negative level");
    const std::string text = log_text();
    EXPECT_THAT(text, HasSubstr("===== DEBUG LEVEL SET TO UNKNOWN ====="));
    EXPECT_THAT(text, HasSubstr("] DEVEL: devel kept\n"));
    EXPECT_THAT(text, HasSubstr("] UNKNOWN: negative level\n"));
}

TEST_F(KallogTest, HeaderNamesVersionPathAndLevel) {
    kallogregister("KALDeviceMaster");
    kallogversion("QZ4.0.5 BD1.0.7 Oct  6 2006 15:57:48");
    kallog(KAL_NOTICE, "Hello, World!");
    const std::string text = log_text();
    EXPECT_THAT(text,
                HasSubstr("KALDeviceMaster(QZ4.0.5 BD1.0.7 Oct  6 2006 15:57:48) started at "));
    EXPECT_THAT(text, HasSubstr("Now beginning to log to file " + log_path() + ". Next roll at "));
    EXPECT_THAT(text, HasSubstr("Debug level is DEBUG.fd="));
    EXPECT_THAT(text, HasSubstr("KALDeviceMaster[" + std::to_string(getpid()) +
                                "] NOTICE: Hello, World!\n"));
}

TEST_F(KallogTest, SizeRollHappensAtFiveMillionBytesNotBefore) {
    make_dirs(log_dir());
    write_file(log_path(), std::string(4999999, 'x'));
    kallogregister("KALDeviceMaster");
    kallog(KAL_NOTICE, "first");
    EXPECT_EQ(list_dir(log_dir()), std::vector<std::string>{"KALDeviceMaster"});
    EXPECT_THAT(log_text(), HasSubstr("] NOTICE: first\n"));
}

TEST_F(KallogTest, SizeRollOfExactlyFiveMillionBytes) {
    make_dirs(log_dir());
    write_file(log_path(), std::string(5000000, 'x'));
    kallogregister("KALDeviceMaster");
    kallog(KAL_NOTICE, "first");
    const std::string rolled =
        log_path() + "." + std::to_string(clock_.now()) + "." + std::to_string(getpid());
    ASSERT_TRUE(file_exists(rolled));
    // Only the lines we appended: the old content is 5 MB of filler.
    const std::string tail = read_file(rolled).substr(5000000);
    EXPECT_THAT(tail, HasSubstr("Large existing log at " + log_path() +
                                " (5000000 > 5000000). Starting a new one."));
    EXPECT_THAT(tail, HasSubstr("Saving old logfile as " + rolled));
    EXPECT_THAT(log_text(), HasSubstr("] NOTICE: first\n"));
    EXPECT_LT(log_text().size(), 4096u);
}

TEST_F(KallogTest, MidnightRollRenamesToTimeAndPid) {
    // Start a minute before the next local midnight.
    time_t now = time(nullptr);
    struct tm tm {};
    localtime_r(&now, &tm);
    tm.tm_hour = 23;
    tm.tm_min = 59;
    tm.tm_sec = 0;
    clock_.set(mktime(&tm));

    kallogregister("KALDeviceMaster");
    kallog(KAL_NOTICE, "before midnight");
    clock_.advance(59);
    kallog(KAL_NOTICE, "still before");
    EXPECT_EQ(list_dir(log_dir()).size(), 1u);

    // Midnight itself is the roll time: the first message after it rolls.
    clock_.advance(1);  // 00:00:00
    kallog(KAL_NOTICE, "at midnight");
    EXPECT_EQ(list_dir(log_dir()).size(), 1u);

    clock_.advance(1);  // 00:00:01
    kallog(KAL_NOTICE, "after midnight");
    const std::string rolled =
        log_path() + "." + std::to_string(clock_.now()) + "." + std::to_string(getpid());
    ASSERT_TRUE(file_exists(rolled));
    EXPECT_THAT(read_file(rolled), HasSubstr("still before"));
    EXPECT_THAT(read_file(rolled), HasSubstr("at midnight"));
    EXPECT_THAT(read_file(rolled), Not(HasSubstr("after midnight")));
    const std::string fresh = log_text();
    EXPECT_THAT(fresh, HasSubstr("Now beginning to log to file"));
    EXPECT_THAT(fresh, HasSubstr("after midnight"));
}

TEST_F(KallogTest, UncreatableLogDirectoryFallsBackWithoutFailing) {
    // var/tmp is a plain file: the log directory cannot be made below it.
    std::string vartmp = root_.path() + "/var/tmp";
    rmdir(vartmp.c_str());
    write_file(vartmp, "not a directory");
    kallogregister("KALDeviceMaster");
    kallog(KAL_WARN, "still logging");
    kallog(KAL_NOTICE, "and again");
    EXPECT_FALSE(file_exists(log_path()));
}

TEST_F(KallogTest, PlantedSymlinkIsNotFollowed) {
    make_dirs(log_dir());
    const std::string victim = root_.path() + "/victim";
    write_file(victim, "precious\n");
    ASSERT_EQ(symlink(victim.c_str(), log_path().c_str()), 0);
    kallogregister("KALDeviceMaster");
    kallog(KAL_ERR, "must not land in the victim");
    EXPECT_EQ(read_file(victim), "precious\n");
}

TEST_F(KallogTest, SigvecSwitchInstallsUsr1HandlerOnce) {
    struct sigaction before {};
    sigaction(SIGUSR1, nullptr, &before);
    kallogregister("KALDeviceMaster");
    struct sigaction after {};
    sigaction(SIGUSR1, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);

    enable_kallog_sigvec = 1;
    kallogregister("KALDeviceMaster");
    EXPECT_EQ(enable_kallog_sigvec, 0);
    sigaction(SIGUSR1, nullptr, &after);
    EXPECT_NE(after.sa_handler, SIG_DFL);

    // The handler defers the reload to the next message.
    write_level_file(std::string(1, '\x04'));
    raise(SIGUSR1);
    kallog(KAL_ERR, "after usr1");
    EXPECT_EQ(kalgetcurrentloglevel(), 4u);
    EXPECT_THAT(log_text(), HasSubstr("requested asynchronously by previous sighup"));
}

TEST_F(KallogTest, VomitMarkerEchoesToProtectedStderr) {
    make_dirs(log_dir());
    write_file(vomit_marker(), "");
    const std::string text = stderr_of([] {
        kallogregister("KALDeviceMaster");
        kallog(KAL_INFO, "echoed info");
        kal_save_stderr();
        kallog(KAL_INFO, "through the protected copy");
        kal_restore_stderr();
    });
    EXPECT_THAT(
        text,
        HasSubstr(".vomit detected... will print logs at current log level which is 7-DEBUG"));
    EXPECT_THAT(text, HasSubstr("] INFO: echoed info\n"));
    EXPECT_THAT(text, HasSubstr("] INFO: through the protected copy\n"));
}

TEST_F(KallogTest, StandardErrorEchoStartsAtWarn) {
    const std::string text = stderr_of([] {
        kallogregister("KALDeviceMaster");
        kallog(KAL_ERR, "an error");
        kallog(KAL_WARN, "a warning");
        kallog(KAL_NOTICE, "a notice");
        kallog(KAL_INFO, "some info");
    });
    EXPECT_THAT(text, HasSubstr("] ERR: an error\n"));
    EXPECT_THAT(text, HasSubstr("] WARN: a warning\n"));
    EXPECT_THAT(text, Not(HasSubstr("a notice")));
    EXPECT_THAT(text, Not(HasSubstr("some info")));
    // Everything is in the file all the same.
    EXPECT_THAT(log_text(), HasSubstr("] NOTICE: a notice\n"));
}

// Runs `body` in a forked child; its exit status, or -1 when it has not
// ended within `deadline` (it is killed then), so a body that blocks fails
// the test instead of hanging it.
int exit_status_in_child(const std::function<int()>& body, std::chrono::milliseconds deadline) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    int status = 0;
    const bool ended = wait_for([&] { return waitpid(pid, &status, WNOHANG) == pid; }, deadline);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(KallogTest, AFifoPlantedAsTheLogSendsTheLogToSyslogWithoutBlocking) {
    make_dirs(log_dir());
    ASSERT_EQ(mkfifo(log_path().c_str(), 0666), 0);
    // With nobody reading, a blocking open would wait for ever; with a
    // reader it would succeed and feed the reader the log.
    for (const bool withReader : {false, true}) {
        SCOPED_TRACE(withReader ? "a reader holds the FIFO open" : "nobody reads the FIFO");
        int reader = -1;
        if (withReader) {
            reader = open(log_path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            ASSERT_GE(reader, 0);
        }
        const int status = exit_status_in_child(
            [] {
                kallogregister("KALDeviceMaster");
                kallog(KAL_NOTICE, "where does this go?");
                return kallog_debugfd() == -1 ? 0 : 1;
            },
            10s);
        EXPECT_EQ(status, 0) << "-1: blocked; 1: the FIFO was taken as the log file";
        if (reader >= 0) {
            char buf[64];
            EXPECT_EQ(read(reader, buf, sizeof buf), 0) << "nothing was written into the FIFO";
            close(reader);
        }
    }
}

}  // namespace
