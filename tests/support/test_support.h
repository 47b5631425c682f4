#pragma once

// Shared helpers for the test suites: a private KAL_ROOT, files, child
// processes and waiting on conditions with a deadline (never a bare sleep).

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace kal::test {

using namespace std::chrono_literals;

// A private root tree with var/tmp, the resources and the state directory,
// exported as KAL_ROOT for as long as the object lives; removed afterwards.
class TempRoot {
  public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::string& path() const { return path_; }
    // The current log file of the daemon ("KALDeviceMaster").
    std::string daemon_log() const;

  private:
    std::string path_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content, unsigned mode = 0644);
bool file_exists(const std::string& path);
std::vector<std::string> list_dir(const std::string& dir);
void make_dirs(const std::string& path);

// Polls `cond` until it holds or `deadline` passes; true when it held.
bool wait_for(const std::function<bool()>& cond, std::chrono::milliseconds deadline = 20s);

// A process as /proc shows it.
struct ProcessInfo {
    pid_t pid = -1;
    bool zombie = false;  // ended, not yet reaped by its parent
    std::vector<std::string> argv;
};
// The children of `parent`, reaped ones excluded (they are gone).
std::vector<ProcessInfo> children_of(pid_t parent);
// How many descriptors `pid` holds open.
int open_descriptor_count(pid_t pid);

// Forks a child that only waits for a signal, with every signal at its
// default and none blocked. It keeps no descriptor of ours but `keep` (as
// its descriptor 3), so that a socket's far end is held by it alone.
pid_t fork_waiting_child(int keep = -1);
// Reaps `child` and returns the signal that ended it; 0 when it did not end
// by a signal within `deadline` (it is then killed).
int ending_signal(pid_t child, std::chrono::milliseconds deadline = 20s);

// A program built with the project (daemon, simulator, kalctl).
std::string bin_path(const std::string& name);

// A child process started with the current environment plus `env`
// ("NAME=value" sets NAME, a bare "NAME" removes it).
class ChildProcess {
  public:
    ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
                 const std::string& stderr_file = "");
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int sig) const;
    // Waits for the exit; returns the wait status, or -1 after the deadline.
    int wait_exit(std::chrono::milliseconds deadline = 20s);

  private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

}  // namespace kal::test
