#include "private_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>

#include "test_support.h"

namespace kal::test {

namespace {

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

std::string user_name() {
    const struct passwd* pw = getpwuid(getuid());
    return pw ? pw->pw_name : std::to_string(getuid());
}

// The project's test bus configuration, which loads the installed policy
// and lets the test's user play both the daemon and its clients; without
// one, a bus that allows everything.
std::string bus_config(const std::string& socket) {
    const std::string data = std::string(KAL_SOURCE_DIR) + "/data/dbus/";
    const std::string templ = read_file(data + "test-bus.conf.in");
    if (!templ.empty()) {
        std::string config = replace_all(templ, "@KAL_BUS_SOCKET@", socket);
        config = replace_all(config, "@KAL_DBUS_POLICY@", data + "com.orvane.devicemaster.conf");
        return replace_all(config, "@KAL_TEST_USER@", user_name());
    }
    return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=)" +
           socket + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow send_type="signal"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
)";
}

// Reads the one line the bus prints once it listens, within `deadline`.
std::string read_address(int fd, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    std::string line;
    while (line.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        struct pollfd p = {fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            return "";
        char buf[512];
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0)
            return "";
        line.append(buf, static_cast<size_t>(n));
    }
    return line.substr(0, line.find('\n'));
}

}  // namespace

PrivateBus::PrivateBus() {
    std::string templ = std::string(KAL_TEST_TMP) + "/bus.XXXXXX";
    if (!mkdtemp(templ.data()))
        throw std::runtime_error("mkdtemp failed");
    dir_ = templ;
    const std::string config = dir_ + "/bus.conf";
    const std::string socket = dir_ + "/bus.sock";
    write_file(config, bus_config(socket));

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    const std::string config_arg = "--config-file=" + config;
    const std::string address_arg = "--address=unix:path=" + socket;
    const std::string log = dir_ + "/dbus-daemon.stderr";
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        // Goes with the test process however that ends.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(127);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        dup2(out[1], 1);
        int err = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (err >= 0)
            dup2(err, 2);
        execlp("dbus-daemon", "dbus-daemon", config_arg.c_str(), "--nofork", "--nopidfile",
               address_arg.c_str(), "--print-address=1", static_cast<char*>(nullptr));
        _exit(127);
    }
    ::close(out[1]);
    address_ = read_address(out[0], std::chrono::seconds(20));
    ::close(out[0]);
    if (address_.empty()) {
        const std::string why = read_file(log);
        ::kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
        throw std::runtime_error("dbus-daemon did not start: " + why);
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
}

void PrivateBus::stop() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

PrivateBus::~PrivateBus() {
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    stop();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

}  // namespace kal::test
