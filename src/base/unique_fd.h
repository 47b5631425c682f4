#pragma once

// A move-only owner of one file descriptor; closes it when destroyed.

#include <unistd.h>

#include <utility>

namespace kal {

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    unique_fd(unique_fd&& o) noexcept : fd_(o.release()) {}
    unique_fd& operator=(unique_fd&& o) noexcept {
        reset(o.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    // Gives up ownership without closing.
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        int old = std::exchange(fd_, fd);
        if (old >= 0)
            ::close(old);
    }

  private:
    int fd_ = -1;
};

}  // namespace kal
