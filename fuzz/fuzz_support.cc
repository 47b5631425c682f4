#include "fuzz_support.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/paths.h"
#include "log/kallog.h"

namespace kal::fuzz {

namespace {

std::string& root_path() {
    static std::string path;
    return path;
}

void remove_root() {
    std::error_code ignored;
    std::filesystem::remove_all(root_path(), ignored);
}

}  // namespace

void use_private_root(int level) {
    char dir[] = "/tmp/kal-fuzz-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    root_path() = dir;
    atexit(remove_root);
    setenv("KAL_ROOT", dir, 1);
    std::filesystem::create_directories(std::string(dir) + "/var/tmp");
    kallogregister("KALDeviceMaster");
    kalsetcurrentloglevel(static_cast<unsigned>(level));
}

SocketPair socket_pair() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        perror("socketpair");
        abort();
    }
    return {unique_fd(sv[0]), unique_fd(sv[1])};
}

void write_and_close(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n <= 0) {
            perror("write");
            abort();
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);
}

}  // namespace kal::fuzz
