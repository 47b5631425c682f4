// The installed build: `cmake --install --prefix /usr` into a DESTDIR that is
// the test's KAL_ROOT, the way a package is made. The installed daemon finds
// its line monitors and beep under usr/lib/kaldevicemaster and keeps its state
// under var/lib/kaldevicemaster; the installed completion offers kalctl's
// commands, options and the serials of the lines present. The installed
// kal-answer starts with the installed /etc/kal-answer.conf and answers with
// the installed prompts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "base/paths.h"
#include "bus_client.h"
#include "daemon_fixture.h"
#include "kalctl/cli.h"
#include "service/bus_values.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

namespace {

// The output of a shell command line.
std::string output_of(const std::string& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe)
        return out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;)
        out.append(buf, n);
    ::pclose(pipe);
    return out;
}

// Installs the build into `root` as a package build does; the log of the
// install is left in root/install.log.
bool install_into(const std::string& root) {
    const std::string command = "DESTDIR='" + root + "' '" KAL_TEST_CMAKE "' --install '" +
                                KAL_TEST_BUILD_DIR "' --prefix /usr >'" + root +
                                "/install.log' 2>&1";
    return std::system(command.c_str()) == 0;
}

class InstalledDaemonTest : public DaemonTest {
  protected:
    void SetUp() override {
        ASSERT_TRUE(install_into(root_.path())) << read_file(root_.path() + "/install.log");
        // The simulator under the line-monitor names, beside the installed beep.
        DaemonTest::SetUp();
        daemon_program_ = installed("/usr/sbin/kaldevicemaster");
    }
    void TearDown() override { stop_daemon(); }

    std::string installed(const std::string& path) const { return root_.path() + path; }

    // COMPREPLY of the installed completion for the installed kalctl
    // followed by `words`, the last being the word completed.
    std::vector<std::string> complete(std::vector<std::string> words) const {
        words.insert(words.begin(), installed("/usr/bin/kalctl"));
        std::string array;
        for (const auto& w : words)
            array += " '" + w + "'";
        const std::string script =
            "source '" + installed("/usr/share/bash-completion/completions/kalctl") +
            "'; COMP_WORDS=(" + array + "); COMP_CWORD=" + std::to_string(words.size() - 1) +
            "; _kalctl; printf '%s\\n' \"${COMPREPLY[@]}\"";
        const std::string out = output_of("bash -c \"$KAL_COMPLETION_SCRIPT\"", script);
        std::vector<std::string> lines;
        for (size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos; at = end + 1)
            if (end > at)
                lines.push_back(out.substr(at, end - at));
        return lines;
    }

  private:
    static std::string output_of(const std::string& command, const std::string& script) {
        setenv("KAL_COMPLETION_SCRIPT", script.c_str(), 1);
        std::string out = ::output_of(command);
        unsetenv("KAL_COMPLETION_SCRIPT");
        return out;
    }
};

TEST_F(InstalledDaemonTest, EachFileLandsWhereTheInstalledProgramsLook) {
    for (const char* path :
         {"/usr/sbin/kaldevicemaster", "/usr/bin/kalctl", "/usr/bin/kal-linesim",
          "/usr/lib/kaldevicemaster/tone450.raw", "/usr/lib/systemd/system/kaldevicemaster.service",
          "/usr/lib/sysusers.d/kaldevicemaster.conf",
          "/usr/share/dbus-1/system.d/com.orvane.devicemaster.conf",
          "/usr/share/dbus-1/interfaces/com.orvane.KALActionRequesting.xml",
          "/usr/share/bash-completion/completions/kalctl", "/var/lib/kaldevicemaster"})
        EXPECT_TRUE(file_exists(installed(path))) << path;
    EXPECT_EQ(tone450_path(), installed("/usr/lib/kaldevicemaster/tone450.raw"));
    EXPECT_EQ(qlxconfig_path(), installed("/var/lib/kaldevicemaster/qlxconfig"));
    // systemd makes the state directory and hands it to the daemon's user;
    // the voice-modem line monitor ships with it, so the unit always starts.
    const std::string unit =
        read_file(installed("/usr/lib/systemd/system/kaldevicemaster.service"));
    EXPECT_THAT(unit, HasSubstr("\nExecStart=/usr/sbin/kaldevicemaster\n"));
    EXPECT_THAT(unit, HasSubstr("\nStateDirectory=kaldevicemaster\n"));
    EXPECT_EQ(access(installed("/usr/lib/kaldevicemaster/V253LineMonitor").c_str(), X_OK), 0);
    // kal-answer: its unit names the installed program, and the folder its
    // --help gives as the prompts' default holds them.
    for (const char* path :
         {"/usr/sbin/kal-answer", "/etc/kal-answer.conf", "/usr/lib/sysusers.d/kal-answer.conf",
          "/usr/share/dbus-1/system.d/com.orvane.answer.conf",
          "/usr/share/dbus-1/interfaces/com.orvane.KALAnswer.xml"})
        EXPECT_TRUE(file_exists(installed(path))) << path;
    EXPECT_THAT(read_file(installed("/usr/lib/systemd/system/kal-answer.service")),
                HasSubstr("\nExecStart=/usr/sbin/kal-answer\n"));
    EXPECT_THAT(::output_of("'" + installed("/usr/sbin/kal-answer") + "' --help"),
                HasSubstr(KAL_TEST_ANSWER_SOUNDS_DIR ")"));
    for (const char* prompt : {"/greeting.raw", "/enter-pin.raw", "/word-9.raw"})
        EXPECT_TRUE(file_exists(installed(KAL_TEST_ANSWER_SOUNDS_DIR) + prompt)) << prompt;
    // The man pages, when this build made them, name the same paths.
    const std::string man8 = installed("/usr/share/man/man8/kaldevicemaster.8");
    if (file_exists(man8)) {
        EXPECT_THAT(read_file(man8), HasSubstr("/var/lib/kaldevicemaster/qlxconfig"));
        EXPECT_TRUE(file_exists(installed("/usr/share/man/man1/kalctl.1")));
        for (const char* page :
             {"/usr/share/man/man1/kal-linesim.1", "/usr/share/man/man1/kal-modemsim.1",
              "/usr/share/man/man8/kal-answer.8", "/usr/share/man/man5/kal-answer.conf.5"})
            EXPECT_TRUE(file_exists(installed(page))) << page;
    }
}

TEST_F(InstalledDaemonTest, FindsItsLineMonitorsAndBeepAndKeepsStateUnderVarLib) {
    constexpr const char kSerial[] = "KL5501";
    ports_.add_adapter(1, kSerial);
    start_daemon("Vending Listener", {"KAL_LINESIM_SPEED=100"});
    EXPECT_TRUE(
        logged("Successful fork of " + installed("/usr/lib/kaldevicemaster/KALLineMonitor")))
        << log();
    LineSimControl line(kSerial);
    ASSERT_TRUE(line.connected()) << log();
    BusClient client;
    ASSERT_TRUE(wait_for([&] { return client.registerApp().ok(); })) << log();
    ASSERT_TRUE(client.subscribe("RequestComplete").ok());

    // Line preferences and the kept log level go to the state directory.
    const ValueDict prefs = {{"Rings", Value(int32_t{4})}};
    ASSERT_TRUE(client
                    .callWith("SetLinePreferences",
                              [&](sd_bus_message* m) { return bus::append_dict(m, prefs); })
                    .ok());
    EXPECT_THAT(read_file(installed("/var/lib/kaldevicemaster/qlxconfig")),
                HasSubstr("<key>Rings</key>"));
    ASSERT_TRUE(client.call("SetSystemWideDebugLevel", "ib", 7, 1).ok());
    EXPECT_EQ(read_file(installed("/var/lib/kaldevicemaster/debuglevel")),
              std::string("\x07\n", 2));

    // A recording appended to another starts with the installed beep.
    const std::string beep = read_file(installed("/usr/lib/kaldevicemaster/tone450.raw"));
    ASSERT_EQ(beep.size(), 4000u);
    const std::string rec = root_.path() + "/call.raw";
    write_file(rec, "earlier");
    EXPECT_EQ(line.send("offhook"), "ok sent P");
    ASSERT_TRUE(
        client.call("BeginCRNodeForResource", "sssssu", kSerial, "cr-1", rec.c_str(), "", "", 1u)
            .ok());
    EXPECT_THAT(line.send("wait-command R"), StartsWith("ok R path=" + rec + " "));
    EXPECT_EQ(read_file(rec).substr(0, 7 + beep.size()), "earlier" + beep);
    EXPECT_TRUE(logged("appendBeep: Appended beep")) << log();

    // Completion asks the installed kalctl for the lines present.
    EXPECT_THAT(complete({"hangup", ""}), UnorderedElementsAre(kSerial));
    EXPECT_THAT(complete({"dial", ""}), UnorderedElementsAre(kSerial, "any"));
    EXPECT_THAT(complete({"dial", "KL", ""}), UnorderedElementsAre()) << "digits are not serials";
}

// The configuration the package installs works as it is: the installed
// kal-answer reads it, registers with the daemon and answers after its four
// rings with the spoken greeting from the installed prompts.
TEST_F(InstalledDaemonTest, InstalledAnswerWorksWithTheInstalledConfiguration) {
    constexpr const char kSerial[] = "KL5502";
    ports_.add_adapter(1, kSerial);
    start_daemon("Vending Listener", {"KAL_LINESIM_SPEED=100"});
    LineSimControl line(kSerial);
    ASSERT_TRUE(line.connected()) << log();

    const std::string sounds = installed(KAL_TEST_ANSWER_SOUNDS_DIR);
    const std::string answer_log = root_.path() + "/answer.txt";
    ChildProcess answer({installed("/usr/sbin/kal-answer"), "--sounds", sounds}, {}, answer_log);
    ASSERT_TRUE(wait_for([&] {
        return read_file(answer_log).find("registered with kaldevicemaster") != std::string::npos;
    })) << read_file(answer_log);
    EXPECT_THAT(read_file(answer_log), Not(HasSubstr("does not exist")));

    for (int ring = 0; ring < 4; ++ring)
        line.send("ring");
    EXPECT_THAT(line.send("wait-command P 20"), HasSubstr(" path=" + sounds + "/greeting.raw"))
        << read_file(answer_log);
    answer.signal(SIGTERM);
    const int status = answer.wait_exit();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(InstalledDaemonTest, CompletionOffersKalctlsCommandsAndOptions) {
    std::vector<std::string> names = {"help"};
    for (const auto& desc : kalctl::commands())
        names.push_back(desc.name);
    EXPECT_THAT(complete({""}), UnorderedElementsAreArray(names));
    EXPECT_THAT(complete({"re"}), UnorderedElementsAre("record", "rescan"));
    EXPECT_THAT(complete({"--bus", "unix:path=/x", "sto"}), UnorderedElementsAre("stop-record"));
    EXPECT_THAT(complete({"help", "vm"}), UnorderedElementsAre("vmcheck"));
    EXPECT_THAT(complete({"--ve"}), UnorderedElementsAre("--vendor", "--version"));
    EXPECT_THAT(complete({"dial", "--wa"}), UnorderedElementsAre("--wait-for-pickup", "--wait"));
    EXPECT_THAT(complete({"monitor", "--count", "3", "--f"}), UnorderedElementsAre("--full"));

    // Options naming a file complete file names.
    write_file(root_.path() + "/greeting.raw", "");
    EXPECT_THAT(complete({"voicemail", "KL1", "--greeting", root_.path() + "/gr"}),
                UnorderedElementsAre(root_.path() + "/greeting.raw"));
}

}  // namespace
