#include "test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "base/paths.h"

namespace kal::test {

namespace {
// ctest reads a test's output through a pipe, where stdout is fully
// buffered: a test it kills at its timeout would take every line it had
// printed with it, failures included. Line buffering keeps them.
[[maybe_unused]] const bool stdout_line_buffered = [] {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    return true;
}();
}  // namespace

TempRoot::TempRoot() {
    // Inside the build tree, so an aborted run leaves nothing in /tmp.
    std::string templ = std::string(KAL_TEST_TMP) + "/kalroot.XXXXXX";
    if (!mkdtemp(templ.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = templ;
    setenv("KAL_ROOT", path_.c_str(), 1);
    make_dirs(path_ + "/var/tmp");
    make_dirs(kal::resources_dir());
    make_dirs(kal::state_dir());
}

TempRoot::~TempRoot() {
    unsetenv("KAL_ROOT");
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string TempRoot::daemon_log() const {
    return kal::log_dir() + "/KALDeviceMaster";
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string& path, const std::string& content, unsigned mode) {
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << content;
    }
    ::chmod(path.c_str(), mode);
}

bool file_exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> list_dir(const std::string& dir) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec))
        names.push_back(e.path().filename().string());
    return names;
}

void make_dirs(const std::string& path) {
    std::filesystem::create_directories(path);
}

bool wait_for(const std::function<bool()>& cond, std::chrono::milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

std::string bin_path(const std::string& name) {
    return std::string(KAL_TEST_BIN_DIR) + "/" + name;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::vector<std::string>& env, const std::string& stderr_file) {
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        for (const auto& kv : env) {
            if (kv.find('=') == std::string::npos)
                unsetenv(kv.c_str());
            else
                putenv(const_cast<char*>(kv.c_str()));
        }
        if (!stderr_file.empty()) {
            int fd = ::open(stderr_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd >= 0)
                dup2(fd, 2);
        }
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        std::vector<char*> args;
        for (const auto& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess() {
    if (!reaped_ && pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void ChildProcess::signal(int sig) const {
    ::kill(pid_, sig);
}

int ChildProcess::wait_exit(std::chrono::milliseconds deadline) {
    int status = -1;
    bool done = wait_for(
        [&] {
            pid_t r = waitpid(pid_, &status, WNOHANG);
            return r == pid_;
        },
        deadline);
    if (!done)
        return -1;
    reaped_ = true;
    return status;
}

std::vector<ProcessInfo> children_of(pid_t parent) {
    std::vector<ProcessInfo> children;
    for (const std::string& name : list_dir("/proc")) {
        if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        // "pid (comm) state ppid ...": comm may hold blanks and parentheses.
        const std::string stat = read_file("/proc/" + name + "/stat");
        const size_t close = stat.rfind(')');
        if (close == std::string::npos)
            continue;
        std::istringstream rest(stat.substr(close + 1));
        char state = 0;
        pid_t ppid = -1;
        if (!(rest >> state >> ppid) || ppid != parent)
            continue;
        ProcessInfo info;
        info.pid = static_cast<pid_t>(std::stol(name));
        info.zombie = state == 'Z';
        std::istringstream cmdline(read_file("/proc/" + name + "/cmdline"));
        for (std::string arg; std::getline(cmdline, arg, '\0');)
            info.argv.push_back(arg);
        children.push_back(std::move(info));
    }
    return children;
}

int open_descriptor_count(pid_t pid) {
    return static_cast<int>(list_dir("/proc/" + std::to_string(pid) + "/fd").size());
}

pid_t fork_waiting_child(int keep) {
    const pid_t child = fork();
    if (child != 0)
        return child;
    // Whoever started us may have ignored or blocked signals.
    for (int sig = 1; sig < 32; ++sig)
        signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (keep >= 0 && keep != 3)
        dup2(keep, 3);
    close_range(keep >= 0 ? 4 : 3, ~0U, 0);
    for (;;)
        pause();
}

int ending_signal(pid_t child, std::chrono::milliseconds deadline) {
    int status = 0;
    if (!wait_for([&] { return waitpid(child, &status, WNOHANG) == child; }, deadline)) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        return 0;
    }
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

}  // namespace kal::test
