// kalctl and the client library against the real daemon: fake adapters
// (umockdev), the line-monitor simulator, a private system bus with the
// project's policy.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "base/paths.h"
#include "client/client.h"
#include "fake_adapters.h"
#include "linesim_control.h"
#include "private_bus.h"
#include "service/kal_errors.h"
#include "service/vocabulary.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

namespace {

class KalctlDaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        install_linesim();
        ports_.add_adapter(1, "KL1001");
        ports_.add_adapter(2, "ZR2002");
        daemon_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{bin_path("kaldevicemaster")},
            std::vector<std::string>{"KAL_LINESIM_SPEED=100"}, root_.path() + "/stderr.txt");
        // The name is taken once the line monitors are up.
        ASSERT_TRUE(wait_for([&] { return logged("Vending Listener") && name_owned(); })) << log();
    }
    void TearDown() override {
        daemon_->signal(SIGTERM);
        const int status = daemon_->wait_exit();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

    std::string log() const { return read_file(root_.daemon_log()); }
    bool logged(const std::string& text) const { return log().find(text) != std::string::npos; }
    bool name_owned() const {
        sd_bus* raw = nullptr;
        if (sd_bus_open_system(&raw) < 0)
            return false;
        BusPtr bus(raw);
        BusError error;
        sd_bus_message* reply = nullptr;
        int owned = 0;
        if (sd_bus_call_method(raw, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "NameHasOwner", error.get(), &reply, "s",
                               kal_DO_Server_Name) >= 0)
            sd_bus_message_read(reply, "b", &owned);
        sd_bus_message_unref(reply);
        return owned != 0;
    }

    // kalctl as a person runs it; its output lands in files.
    std::unique_ptr<ChildProcess> start_kalctl(std::vector<std::string> args) {
        args.insert(args.begin(), bin_path("kalctl"));
        return start(args);
    }
    std::unique_ptr<ChildProcess> start(const std::vector<std::string>& command) {
        std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$0\" \"$@\" >\"$KALCTL_OUT\""};
        argv.insert(argv.end(), command.begin(), command.end());
        return std::make_unique<ChildProcess>(
            argv, std::vector<std::string>{"KALCTL_OUT=" + out_file()}, err_file());
    }
    struct Outcome {
        int status;
        std::string out;
        std::string err;
    };
    Outcome finish(ChildProcess& kalctl) {
        const int status = kalctl.wait_exit();
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out_file()),
                read_file(err_file())};
    }
    Outcome kalctl(const std::vector<std::string>& args) { return finish(*start_kalctl(args)); }
    Outcome kalctl_argv(const std::vector<std::string>& command) { return finish(*start(command)); }
    std::string out_file() const { return root_.path() + "/kalctl.out"; }
    std::string err_file() const { return root_.path() + "/kalctl.err"; }

    TempRoot root_;
    PrivateBus bus_;
    FakeAdapters ports_;
    std::unique_ptr<ChildProcess> daemon_;
};

TEST_F(KalctlDaemonTest, LinesListsTheAdaptersWithTheirTypes) {
    const auto o = kalctl({"lines"});
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_EQ(o.out, "KL1001  type 1\nZR2002  type 2 (enhanced)\n") << o.err;
}

// A tagged voice modem beside the adapters: the daemon starts the type-3
// program for it (here the simulator, installed under that name).
class KalctlVoiceModemTest : public KalctlDaemonTest {
  protected:
    void SetUp() override {
        make_dirs(resources_dir());
        std::filesystem::create_symlink(bin_path("kal-linesim"), v253_linemonitor_path());
        modem_ = ports_.add_voice_modem_port();
        KalctlDaemonTest::SetUp();
    }
    VoiceModemPort modem_;
};

TEST_F(KalctlVoiceModemTest, LinesShowsTheVoiceModemStartedWithItsOwnProgram) {
    const auto o = kalctl({"lines"});
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_THAT(o.out, HasSubstr("12345678  type 3 (voice modem)\n"));
    EXPECT_THAT(o.out, HasSubstr("KL1001    type 1\n"));
    LineSimControl line("12345678");
    EXPECT_THAT(line.send("orders"),
                AllOf(HasSubstr(" line=" + modem_.devnode + " "), HasSubstr("extra=\"type=3\""),
                      HasSubstr("program=V253LineMonitor")));
}

TEST_F(KalctlDaemonTest, MonitorPrintsLineEventsAsTheyHappenLatin1NamesIncluded) {
    auto monitor = start_kalctl({"monitor", "--count", "2", "--timeout", "60"});
    // RequestComplete is the last name it subscribes to.
    ASSERT_TRUE(wait_for([&] { return logged("to subscription array for 'RequestComplete'"); }))
        << log();
    LineSimControl line("KL1001");
    ASSERT_EQ(line.send("ring"), "ok sent R");
    // "X5551234 JOS\xc9", as an analogue line sends a caller name.
    ASSERT_EQ(line.send("frame 5835353531323334204a4f53c900"), "ok sent frame of 14 bytes");
    const auto o = finish(*monitor);
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_THAT(o.out, MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2} KALRingDetect KL1001 "
                                    "\\{KALQLXNumberKey = 0\\}\n"
                                    "[0-9]{2}:[0-9]{2}:[0-9]{2} KALCallerID KL1001 "
                                    "\\{KALCallerIDContentsKey = 5551234 JOS\u00c9; "
                                    "KALQLXNumberKey = 0\\}\n"));
}

// The path in a simulator's description of a P command.
std::string played_path(const std::string& reply) {
    const auto at = reply.find("path=");
    if (at == std::string::npos)
        return "";
    return reply.substr(at + 5, reply.find(' ', at) - at - 5);
}

TEST_F(KalctlDaemonTest, ScriptAnswersTheCallersCodeAndSeesTheSessionEnd) {
    const std::string answer = root_.path() + "/weather.raw";
    write_file(answer, std::string(8000, '\x80'));
    LineSimControl line("KL1001");
    // A call in progress: the line is connected.
    ASSERT_THAT(line.send("hook off"), StartsWith("ok handset off hook"));
    auto kalctl = start_kalctl({"script", "KL1001", "--answer", "1=" + answer, "--codes", "2",
                                "--token", "menu", "--timeout", "60"});
    ASSERT_THAT(line.send("wait-command ! 20"), HasSubstr("! type=1"));
    ASSERT_THAT(line.send("digits 1#"), HasSubstr("sent # digit=#"));
    const std::string played = played_path(line.send("wait-command P 20"));
    EXPECT_THAT(played, StartsWith(root_.path() + "/var/tmp/kalctl-"));
    // Played, deleted by the daemon, and the menu offered again.
    ASSERT_THAT(line.send("wait-command ! 20"), HasSubstr("! type=1"));
    EXPECT_TRUE(wait_for([&] { return !file_exists(played); })) << played;
    EXPECT_TRUE(file_exists(answer));

    // The session takes the reversal; kalctl finds out by asking.
    ASSERT_EQ(line.send("reversal"), "ok sent l");
    const auto o = finish(*kalctl);
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_THAT(o.out, HasSubstr("KALPleaseRunActionScriptForCaller KL1001 {KALDigitContentsKey "
                                 "= 1; KALSequenceNumber = "));
    EXPECT_THAT(o.out, HasSubstr("Answered with " + played + " (a copy of " + answer + ")."));
    EXPECT_THAT(o.out, EndsWith("The session on KL1001 has ended.\n"));
    EXPECT_TRUE(logged("ScriptNode")) << log();
}

TEST_F(KalctlDaemonTest, VmcheckPlaysAMessageAndDeletesItAtTheCallersWord) {
    // Menus long enough to press a key in (1.2 s at the simulator's speed);
    // the message plays to its end.
    const std::string greeting = root_.path() + "/greeting.raw";
    const std::string menu = root_.path() + "/menu.raw";
    write_file(greeting, std::string(960000, '\x80'));
    write_file(menu, std::string(960000, '\x80'));
    const std::string dir = root_.path() + "/messages";
    make_dirs(dir);
    write_file(dir + "/m1.raw", std::string(800, '\x80'));

    LineSimControl line("KL1001");
    ASSERT_EQ(line.send("ring"), "ok sent R");
    auto kalctl = start_kalctl({"vmcheck", "KL1001", "--greeting", greeting, "--inter-greeting",
                                menu, "--messages", dir, "--token", "check", "--timeout", "60"});
    const std::string first = played_path(line.send("wait-command P 20"));
    EXPECT_THAT(first, StartsWith(root_.path() + "/var/tmp/kalctl-"));
    ASSERT_THAT(line.send("digits 1"), HasSubstr("stopped audio"));
    const std::string message = played_path(line.send("wait-command P 20"));
    EXPECT_THAT(message, StartsWith(root_.path() + "/var/tmp/kalctl-"));
    EXPECT_EQ(played_path(line.send("wait-command P 20")), menu);
    ASSERT_THAT(line.send("digits 3"), HasSubstr("stopped audio"));
    // No more messages: the main menu again, from a new copy; the daemon
    // deleted the one it replaced.
    const std::string again = played_path(line.send("wait-command P 20"));
    EXPECT_THAT(again, StartsWith(root_.path() + "/var/tmp/kalctl-"));
    EXPECT_NE(again, first);
    EXPECT_TRUE(wait_for([&] { return !file_exists(first); })) << first;

    ASSERT_THAT(line.send("reversal"), StartsWith("ok sent l"));
    ASSERT_EQ(line.send("tone busy"), "ok sent b");
    const auto o = finish(*kalctl);
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_THAT(o.out, HasSubstr("Presenting m1.raw, 1 of 1 unheard."));
    EXPECT_THAT(o.out, HasSubstr("m1.raw deleted."));
    EXPECT_THAT(o.out, EndsWith("The call on KL1001 has ended.\n"));
    EXPECT_FALSE(file_exists(dir + "/m1.raw"));
    EXPECT_TRUE(file_exists(greeting));
    EXPECT_TRUE(file_exists(menu));
}

TEST_F(KalctlDaemonTest, RequestsBeforeRegistrationAreRefusedWith16) {
    client::Client unregistered;
    try {
        unregistered.resources();
        FAIL() << "served before registering";
    } catch (const KALException& e) {
        EXPECT_EQ(e.kalErrorCode(), 16);
        EXPECT_EQ(e.reason(), "#16 Unauthenticated request");
    }
    // Once registered, the same connection is served.
    EXPECT_EQ(unregistered.registerApplication("test", "com.example"), kal_ResponseCode_OK);
    EXPECT_NO_THROW(unregistered.resources());
}

TEST_F(KalctlDaemonTest, AnUnknownProtocolVersionIsRefusedWithTheAcceptedOnes) {
    const auto o = kalctl({"--protocol", "QZ4.0.6", "lines"});
    EXPECT_EQ(o.status, 1);
    EXPECT_THAT(o.err, HasSubstr("#35 Invalid software version"));
    EXPECT_THAT(o.err, HasSubstr("(KALSpokesman accepts: QZ4.0.5 BD1.0.7)"));
}

TEST_F(KalctlDaemonTest, OtherUsersMayIntrospectTheDaemonButNotCallIt) {
    if (getuid() != 0)
        GTEST_SKIP() << "needs root to run a client as another user";
    // The bus socket's folder is the test's own; let the other user in.
    ASSERT_EQ(chmod(bus_.dir().c_str(), 0755), 0);
    const std::vector<std::string> nobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
                                             "--clear-groups"};
    auto as_nobody = [&](std::vector<std::string> argv) {
        argv.insert(argv.begin(), nobody.begin(), nobody.end());
        return kalctl_argv(argv);
    };

    const auto refused = as_nobody({bin_path("kalctl"), "lines"});
    EXPECT_EQ(refused.status, 3) << refused.err;
    EXPECT_THAT(refused.err, HasSubstr("member of the group kal"));

    const auto introspected =
        as_nobody({"/usr/bin/dbus-send", "--system", "--print-reply",
                   "--dest=" + std::string(kal_DO_Server_Name), "/com/orvane/DeviceMaster",
                   "org.freedesktop.DBus.Introspectable.Introspect"});
    EXPECT_EQ(introspected.status, 0) << introspected.err;
    EXPECT_THAT(introspected.out, HasSubstr("com.orvane.KALActionRequesting"));
}

}  // namespace
