// The V253LineMonitor program against the kal-modemsim emulator on a
// pseudo-terminal: the daemon's side of the line socket is played by the
// test, which reads each event and writes each command as the daemon
// would, and drives the telephone line through the emulator's control
// socket.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "base/unique_fd.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "linesim_control.h"
#include "test_support.h"

using namespace std::string_literals;
using namespace std::chrono_literals;
using kal::test::LineSimControl;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class V253Program : public ::testing::Test {
  protected:
    // The emulator with `quirks` (--quirk NAME=VALUE each), then the line
    // monitor on its port.
    void start(const std::vector<std::string>& quirks = {}) {
        std::vector<std::string> argv = {
            kal::test::bin_path("kal-modemsim"), "--link", port, "--serial", "M1", "--speed", "20"};
        for (const auto& q : quirks) {
            argv.push_back("--quirk");
            argv.push_back(q);
        }
        modem_proc.emplace(argv, std::vector<std::string>{}, root.path() + "/modemsim.err");
        ASSERT_TRUE(kal::test::wait_for([&] { return kal::test::file_exists(port); }));
        ctl.emplace(root.path() + "/run/kal-modemsim/M1.sock");
        ASSERT_TRUE(ctl->connected());

        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
        daemon_end.reset(sv[0]);
        kal::unique_fd child_end(sv[1]);
        const std::string program = kal::test::bin_path("V253LineMonitor");
        const std::string err = root.path() + "/monitor.err";
        pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            dup2(child_end.get(), 4);  // dup2 clears close-on-exec on 4
            int e = open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (e >= 0)
                dup2(e, 2);
            execl(program.c_str(), "V253LineMonitor", "-QLXLine", port.c_str(), "-QLXSerial", "M1",
                  nullptr);
            _exit(18);
        }
        lm::lm_orders o;
        o.line = port;
        o.serial = "M1";
        const std::string orders = lm::build_orders(o);
        ASSERT_EQ(safe_write(daemon_end.get(), orders.data(), orders.size()),
                  static_cast<ssize_t>(orders.size()));
    }

    void TearDown() override {
        if (HasFailure())
            for (const char* f : {"/monitor.err", "/modemsim.err"})
                fprintf(stderr, "--- %s\n%s", f, kal::test::read_file(root.path() + f).c_str());
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

    // The next event from the line monitor, or "" after `deadline`.
    std::string next_event(std::chrono::milliseconds deadline = 20s) {
        struct pollfd p = {daemon_end.get(), POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(deadline.count())) <= 0)
            return "";
        char buf[4096];
        ssize_t n = dmp_read(daemon_end.get(), buf, sizeof buf, -1);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
    }
    // Skips events until one starting with `c`.
    std::string event_of(char c) {
        for (std::string e; !(e = next_event()).empty();)
            if (e[0] == c)
                return e;
        return "";
    }
    void command(const std::string& payload) {
        ASSERT_EQ(dmp_write(daemon_end.get(), payload.data(), payload.size()),
                  static_cast<ssize_t>(payload.size()));
    }
    std::string audio(char c, const std::string& path, const std::string& stops,
                      int32_t length = 0) {
        lm::lm_audio_request r;
        r.path = path;
        r.stopString = stops;
        r.token = "123";
        r.length = length;
        return c == 'P' ? lm::cmd_play(r) : lm::cmd_record(r);
    }
    // Waits for the monitor to end; its exit status, or -1.
    int exit_status() {
        int status = 0;
        if (!kal::test::wait_for([&] { return waitpid(pid, &status, WNOHANG) == pid; }))
            return -1;
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    // The modem is nearly set up (what the test asks for next queues behind).
    void wait_ready() { ASSERT_THAT(ctl->send("wait-command AT+VIT"), StartsWith("ok")); }
    // Ring, then answer the line with a play the test can stop.
    void ring_once() {
        ASSERT_THAT(ctl->send("ring"), StartsWith("ok"));
        ASSERT_EQ(event_of('R'), "R");
    }

    kal::test::TempRoot root;
    std::string port = root.path() + "/modem";
    std::optional<kal::test::ChildProcess> modem_proc;
    std::optional<LineSimControl> ctl;
    kal::unique_fd daemon_end;
    pid_t pid = -1;
};

TEST_F(V253Program, EndsWhenTheModemStopsAnswering) {
    start({"mute-at=+VSM"});
    EXPECT_EQ(exit_status(), 5);
}

TEST_F(V253Program, EndsWhenTheModemIsUnplugged) {
    start();
    wait_ready();
    ring_once();
    kal::test::write_file(root.path() + "/long.raw", std::string(8000 * 60, '\x80'));
    command(audio('P', root.path() + "/long.raw", "#"));
    ASSERT_THAT(ctl->send("wait-command AT+VTX"), StartsWith("ok"));
    ASSERT_THAT(ctl->send("vanish"), StartsWith("ok"));
    EXPECT_EQ(exit_status(), 3);
}

TEST_F(V253Program, EndsQuietlyWhenTheDaemonCloses) {
    start();
    wait_ready();
    daemon_end.reset();
    EXPECT_EQ(exit_status(), 0);
}

}  // namespace
