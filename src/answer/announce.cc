#include "answer/announce.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <iostream>

extern char** environ;

namespace kal::answer {

std::vector<std::string> announcement_environment(const Message& m, const std::string& wav,
                                                  int waiting) {
    char when[40];
    const time_t t = static_cast<time_t>(m.received);
    struct tm tm {};
    localtime_r(&t, &tm);
    strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S%z", &tm);
    char seconds[32];
    snprintf(seconds, sizeof seconds, "%.1f", static_cast<double>(m.durationMs) / 1000.0);
    return {
        "KAL_MESSAGE_ID=" + std::to_string(m.id),
        "KAL_MESSAGE_MAILBOX=" + std::to_string(m.mailbox),
        "KAL_MESSAGE_LINE=" + m.line,
        "KAL_MESSAGE_CALLER_NUMBER=" + m.callerNumber,
        "KAL_MESSAGE_CALLER_NAME=" + m.callerName,
        std::string("KAL_MESSAGE_TIME=") + when,
        std::string("KAL_MESSAGE_DURATION=") + seconds,
        "KAL_MESSAGE_FILE=" + wav,
        "KAL_MESSAGES_WAITING=" + std::to_string(waiting),
    };
}

pid_t run_announcement(const std::string& command, const std::vector<std::string>& env) {
    std::vector<std::string> all;
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "KAL_MESSAGE", 11) != 0)
            all.emplace_back(*e);
    all.insert(all.end(), env.begin(), env.end());
    std::vector<char*> envp;
    for (auto& s : all)
        envp.push_back(s.data());
    envp.push_back(nullptr);
    std::string sh = "/bin/sh", dash_c = "-c", cmd = command;
    char* argv[] = {sh.data(), dash_c.data(), cmd.data(), nullptr};
    // The service keeps its stop signals blocked (it reads them from its
    // event loop); the command starts with none blocked and every signal at
    // its default, as any program expects.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, every;
    sigemptyset(&none);
    sigfillset(&every);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &every);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, "/bin/sh", nullptr, &attr, argv, envp.data());
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        std::cerr << "kal-answer: cannot run the announcement command: " << std::strerror(rc)
                  << std::endl;
        return -1;
    }
    return pid;
}

void reap_announcements() {
    int status = 0;
    while (::waitpid(-1, &status, WNOHANG) > 0) {
    }
}

}  // namespace kal::answer
