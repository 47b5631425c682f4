#include "simctl/ctl.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "simctl/control.h"
#include "simctl/socket_name.h"

namespace kal::simctl {

namespace {

// A connected control socket, or an error text.
kal::unique_fd connect_to(const std::string& path, double wait_seconds, std::string& error) {
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        error = "socket path too long: " + path;
        return kal::unique_fd();
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(wait_seconds);
    for (;;) {
        kal::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (fd && connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
            return fd;
        error = path + ": " + strerror(errno);
        if (std::chrono::steady_clock::now() >= until)
            return kal::unique_fd();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

class Connection {
  public:
    explicit Connection(kal::unique_fd fd) : fd_(std::move(fd)) {}

    // The whole reply, or nothing when the simulator went away.
    std::optional<std::vector<std::string>> request(const std::string& command) {
        std::string line = command + "\n";
        for (size_t off = 0; off < line.size();) {
            ssize_t n = send(fd_.get(), line.data() + off, line.size() - off, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return std::nullopt;
            off += static_cast<size_t>(n);
        }
        std::vector<std::string> reply;
        auto first = read_line();
        if (!first)
            return std::nullopt;
        reply.push_back(*first);
        for (int i = reply_line_count(*first); i > 0; --i) {
            auto more = read_line();
            if (!more)
                return std::nullopt;
            reply.push_back(*more);
        }
        return reply;
    }

  private:
    std::optional<std::string> read_line() {
        for (;;) {
            size_t nl = buf_.find('\n');
            if (nl != std::string::npos) {
                std::string line = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                return line;
            }
            char tmp[4096];
            ssize_t n = recv(fd_.get(), tmp, sizeof tmp, 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return std::nullopt;
            buf_.append(tmp, static_cast<size_t>(n));
        }
    }

    kal::unique_fd fd_;
    std::string buf_;
};

int ctl_usage(const CtlProgram& program) {
    fprintf(stderr,
            "usage: %s ctl [-w SECONDS] <serial | socket path> [command...]\n"
            "       (%s ctl <serial> help lists the commands)\n",
            program.name.c_str(), program.name.c_str());
    return 2;
}

// argv[0] is "ctl".
int run_ctl(const CtlProgram& program, int argc, char** argv) {
    int i = 1;
    double wait_seconds = 0;
    if (i + 1 < argc && strcmp(argv[i], "-w") == 0) {
        char* end = nullptr;
        wait_seconds = strtod(argv[i + 1], &end);
        if (*end || !(wait_seconds >= 0))
            return ctl_usage(program);
        i += 2;
    }
    if (i >= argc)
        return ctl_usage(program);
    std::string target = argv[i++];
    const bool is_path = target.rfind("/", 0) == 0 || target.rfind("./", 0) == 0;
    const std::string path = is_path ? target : socket_path(program.socket_dir, target);

    std::string error;
    kal::unique_fd fd = connect_to(path, wait_seconds, error);
    if (!fd) {
        fprintf(stderr, "%s ctl: no simulator at %s\n", program.name.c_str(), error.c_str());
        return 2;
    }
    Connection conn(std::move(fd));

    if (i < argc) {
        std::string command;
        for (; i < argc; ++i)
            command += (command.empty() ? "" : " ") + std::string(argv[i]);
        auto reply = conn.request(command);
        if (!reply) {
            fprintf(stderr, "%s ctl: the simulator closed the connection\n", program.name.c_str());
            return 2;
        }
        for (const auto& l : *reply)
            printf("%s\n", l.c_str());
        return reply->front().rfind("ok", 0) == 0 ? 0 : 1;
    }

    const bool tty = isatty(0);
    std::string line;
    for (;;) {
        if (tty) {
            printf("%s %s> ", program.name.c_str(), target.c_str());
            fflush(stdout);
        }
        if (!std::getline(std::cin, line))
            break;
        if (line.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        auto reply = conn.request(line);
        if (!reply) {
            fprintf(stderr, "%s ctl: the simulator closed the connection\n", program.name.c_str());
            return 2;
        }
        for (const auto& l : *reply)
            printf("%s\n", l.c_str());
        fflush(stdout);
    }
    if (tty)
        printf("\n");
    return 0;
}

int run_list(const CtlProgram& program) {
    const std::string& dir = program.socket_dir;
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
        std::string name = e.path().filename().string();
        if (name.size() > 5 && name.compare(name.size() - 5, 5, ".sock") == 0)
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    if (names.empty())
        printf("no simulators in %s\n", dir.c_str());
    for (const auto& name : names) {
        std::string error;
        bool alive = static_cast<bool>(connect_to(dir + "/" + name, 0, error));
        printf("%-24s %s\n", name.substr(0, name.size() - 5).c_str(),
               alive ? "listening" : "stale (nobody answers)");
    }
    return 0;
}

}  // namespace

std::optional<int> run_client(const CtlProgram& program, int argc, char** argv) {
    if (argc >= 2 && strcmp(argv[1], "ctl") == 0)
        return run_ctl(program, argc - 1, argv + 1);
    if (argc >= 2 && strcmp(argv[1], "list") == 0)
        return run_list(program);
    return std::nullopt;
}

}  // namespace kal::simctl
