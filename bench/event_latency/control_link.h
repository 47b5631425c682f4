#pragma once

// The benchmark's own channel to its line monitors: a Unix stream socket
// whose path the driver exports as KAL_BENCH_CONTROL before it starts the
// daemon, so every line monitor the daemon spawns finds it. One text line a
// message:
//   line monitor -> driver   hello <serial>
//   driver -> line monitor   run <line> <lines> <rate> <count> <start ns>
//   line monitor -> driver   done <events sent>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/unique_fd.h"

namespace kal::bench {

inline constexpr const char kControlEnv[] = "KAL_BENCH_CONTROL";

// Buffered line reading from one stream socket.
class LineReader {
  public:
    explicit LineReader(int fd) : fd_(fd) {}
    // The next line without its newline; nullopt at end of file, on an error
    // or when `timeout` passes first (negative: no limit).
    std::optional<std::string> next(std::chrono::milliseconds timeout);

  private:
    int fd_;
    std::string buf_;
};

// Writes all of `line` and a newline; false on an error.
bool send_line(int fd, const std::string& line);

// The driver's end: listens at `path` and exports it as KAL_BENCH_CONTROL.
// Throws std::runtime_error when it cannot.
class ControlSocket {
  public:
    explicit ControlSocket(const std::string& path);

    struct Monitor {
        kal::unique_fd fd;
        std::unique_ptr<LineReader> reader;
    };
    // Waits until `count` line monitors have said hello; by serial. Throws
    // when they have not within `deadline`.
    std::map<std::string, Monitor> accept(int count, std::chrono::milliseconds deadline);

  private:
    kal::unique_fd listen_;
};

}  // namespace kal::bench
