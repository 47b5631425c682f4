#include "log/kallog.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "base/clock.h"
#include "base/paths.h"

using namespace kal;

int enable_kallog_sigvec = 0;

namespace {

constexpr const char* kLevelNames[] = {"EMERG",  "ALERT", "CRIT",  "ERR",  "WARN",
                                       "NOTICE", "INFO",  "DEBUG", "DEVEL"};
constexpr size_t kMessageBytes = 2048;

// debug_mutex guards every field of LogState except `debuglevel` (atomic,
// read unlocked by kalgetcurrentloglevel) and `must_reload_level` (set from
// a signal handler). EMERG messages are written without it.
std::mutex debug_mutex;
struct LogState {
    std::string pname;  // empty until kallogregister
    bool registered = false;
    std::string pversion;
    std::string pversiontime;
    int developer_logging = 0;
    FILE* debugfile = nullptr;
    std::atomic<int> debugfd{-1};
    time_t rollafter = 0;
    FILE* mystderr = nullptr;
    int protectedfd = -1;
    // The ctime text of `stamped`: a log line's time changes once a second,
    // so most lines reuse it instead of converting the time again.
    time_t stamped = -1;
    char stamp[64] = "";
};
// Never destroyed: other threads may still log while exit() runs destructors.
LogState& S = *new LogState;
std::atomic<unsigned> debuglevel{KAL_DEBUG};
volatile sig_atomic_t must_reload_level = 0;

std::string ctime_text(time_t t) {
    char buf[64];
    if (!ctime_r(&t, buf))
        return "?";
    buf[strcspn(buf, "\n")] = '\0';
    return buf;
}

// ctime_text(now), kept for the rest of the second. Under debug_mutex.
const char* stamp_text(time_t now) {
    if (now != S.stamped) {
        const std::string text = ctime_text(now);
        snprintf(S.stamp, sizeof S.stamp, "%s", text.c_str());
        S.stamped = now;
    }
    return S.stamp;
}

// "<time> <pname>[<pid>]: ", the prefix of header and roll lines.
std::string roll_prefix(time_t now) {
    return ctime_text(now) + " " + S.pname + "[" + std::to_string(getpid()) + "]: ";
}

bool forcedevel_present() {
    struct stat st;
    return ::stat(forcedevel_marker().c_str(), &st) == 0;
}

void force_devel_level() {
    std::string text = "Forcing devel tracking due to presence of " + forcedevel_marker() + "\n";
    fputs(text.c_str(), stderr);
    debuglevel = KAL_DEVEL;
}

void write_to_file(const std::string& text) {
    if (!S.debugfile)
        return;
    fputs(text.c_str(), S.debugfile);
    fflush(S.debugfile);
}

void usr1_handler(int) {
    // Only async-signal-safe work here: the next message reloads the level.
    must_reload_level = 1;
}

void open_mystderr() {
    if (S.mystderr)
        return;
    S.mystderr = fdopen(S.protectedfd != -1 ? S.protectedfd : 2, "w");
    if (!S.mystderr)
        syslog(LOG_USER | LOG_ALERT, "could not open mystderr.");
}

// Whether the log file opened on `fd` is a regular file; if so, its writes
// are made blocking again. Deliberately stricter than a plain append-open:
// the log directory is world-writable, so anyone may put a FIFO, a device
// or a socket under the log's name. The log is therefore opened without
// blocking (a FIFO nobody reads would otherwise stall start-up inside open)
// and anything but a regular file sends the log to syslog, as a log file
// that cannot be written does.
bool is_plain_log_file(int fd) {
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    const int flags = fcntl(fd, F_GETFL);
    return flags != -1 && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

void kal_setuplog(const std::string& path, time_t now) {
    open_mystderr();

    struct tm tm {};
    localtime_r(&now, &tm);
    S.rollafter = now + (23 - tm.tm_hour) * 3600 + (59 - tm.tm_min) * 60 + 60 - tm.tm_sec;

    mode_t old = umask(0);
    // O_NOFOLLOW: a link planted in the world-writable log directory must not
    // redirect our writes.
    int fd = ::open(path.c_str(),
                    O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0666);
    umask(old);
    if (fd >= 0 && !is_plain_log_file(fd)) {
        ::close(fd);
        fd = -1;
    }
    FILE* f = fd >= 0 ? fdopen(fd, "a") : nullptr;
    if (!f) {
        if (fd >= 0)
            ::close(fd);
        syslog(LOG_USER | LOG_ALERT,
               "%s could not open the log file %s to store debugging information. Check "
               "permissions/available disk space or contact support.",
               S.pname.c_str(), path.c_str());
        S.debugfd = -1;
        return;
    }
    S.debugfile = f;
    S.debugfd = fd;
    fprintf(f,
            "%s%s(%s) started at %s. Now beginning to log to file %s. Next roll at %s. Debug "
            "level is %s.",
            roll_prefix(now).c_str(), S.pname.c_str(),
            S.pversion.empty() ? "version not registered" : S.pversion.c_str(),
            S.pversiontime.empty() ? "unknown time" : S.pversiontime.c_str(), path.c_str(),
            ctime_text(S.rollafter).c_str(), kallog_level_name(debuglevel));
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) == -1) {
        int e = errno;
        fprintf(f,
                "WARNING: Close-on-exec bit could not be set. This may cause problems (%d-%s).\n",
                e, strerror(e));
    } else {
        fprintf(f, "fd=%d.\n", fd);
    }
    fflush(f);
}

void kal_roll(time_t now) {
    if (!S.registered) {
        fputs("Error: Logging is to syslog because kallogregister() has not been called.\n",
              stderr);
        fflush(stderr);
        S.rollafter = now + 60;
        return;
    }
    const std::string dir = log_dir();
    const std::string current = dir + "/" + S.pname;
    const std::string rolled = current + "." + std::to_string(now) + "." + std::to_string(getpid());
    const char* pname = S.pname.c_str();

    struct stat st;
    if (::stat(dir.c_str(), &st) != 0) {
        int e = errno;
        if (e == ENOENT) {
            mode_t old = umask(0);
            if (::mkdir(dir.c_str(), 0777) != 0) {
                e = errno;
                fprintf(stderr, "Error: Can't create directory %s (%d-%s). Logging is to syslog.\n",
                        dir.c_str(), e, strerror(e));
                syslog(LOG_USER | LOG_ALERT,
                       "Error: %s can't create %s (%d-%s). Logging is to syslog. Check "
                       "permissions, directories or contact support for assistance.",
                       pname, dir.c_str(), e, strerror(e));
                return;
            }
            umask(old);
        } else {
            fprintf(stderr, "Error: Can't lookup existence of %s (%d-%s). Logging is to syslog.\n",
                    dir.c_str(), e, strerror(e));
            syslog(LOG_USER | LOG_ALERT,
                   "Error: %s can't lookup existence of %s (%d-%s). Logging is to syslog. Check "
                   "permissions, directories or contact support for assistance.",
                   pname, dir.c_str(), e, strerror(e));
            return;
        }
    }

    if (!S.debugfile) {
        // The size that counts is the file as we found it, before our header.
        const bool found = ::lstat(current.c_str(), &st) == 0;
        const long found_size = found ? static_cast<long>(st.st_size) : 0;
        kal_setuplog(current, now);
        if (!S.debugfile || !found || found_size < kLargeLogBytes)
            return;
        write_to_file(roll_prefix(now) + "Large existing log at " + current + " (" +
                      std::to_string(found_size) + " > 5000000). Starting a new one.\n");
    }

    if (::link(current.c_str(), rolled.c_str()) != 0) {
        int e = errno;
        char line[3 * 1024];
        snprintf(line, sizeof line,
                 "%sError: Couldn't link %s to new filename %s (%d-%s). Better luck tomorrow.\n",
                 roll_prefix(now).c_str(), current.c_str(), rolled.c_str(), e, strerror(e));
        write_to_file(line);
        syslog(LOG_USER | LOG_ALERT,
               "Error: %s couldn't link %s to new filename %s (%d-%s). Check disk "
               "space/permissions, or contact support for help.",
               pname, current.c_str(), rolled.c_str(), e, strerror(e));
        return;
    }
    if (::unlink(current.c_str()) != 0) {
        int e = errno;
        char line[3 * 1024];
        snprintf(line, sizeof line,
                 "%sError: Couldn't remove link for old log file %s (%d-%s). Better luck "
                 "tomorrow.\n",
                 roll_prefix(now).c_str(), current.c_str(), e, strerror(e));
        write_to_file(line);
        syslog(LOG_USER | LOG_ALERT,
               "Error: %s couldn't remove link for old log file %s (%d-%s). Check disk "
               "space/permissions, or contact support for help.",
               pname, current.c_str(), e, strerror(e));
        return;
    }
    write_to_file(roll_prefix(now) + "Saving old logfile as " + rolled +
                  ". Rolling to new logfile " + current + ".\n");
    fclose(S.debugfile);
    S.debugfile = nullptr;
    S.debugfd = -1;
    kal_setuplog(current, now);
}

}  // namespace

const char* kallog_level_name(unsigned level) {
    return level <= KAL_DEVEL ? kLevelNames[level] : "UNKNOWN";
}

int kallog_debugfd() {
    return S.debugfd.load();
}

void kallogregister(const char* name) {
    {
        std::lock_guard lock(debug_mutex);
        S.pname = name ? name : "";
        S.registered = true;
    }
    kallogreadlevelfromfile();
    if (enable_kallog_sigvec) {
        enable_kallog_sigvec = 0;
        struct sigaction sa {};
        sa.sa_handler = usr1_handler;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGUSR1, &sa, nullptr);
    }
    std::lock_guard lock(debug_mutex);
    if (::access(vomit_marker().c_str(), F_OK) == 0) {
        unsigned level = debuglevel;
        fprintf(stderr, ".vomit detected... will print logs at current log level which is %d-%s\n",
                static_cast<int>(level), kallog_level_name(level));
        S.developer_logging = 1;
    } else {
        S.developer_logging = 0;
    }
}

void kallogversion(const char* version) {
    std::lock_guard lock(debug_mutex);
    S.pversion = version ? version : "";
    S.pversiontime = ctime_text(kal::now());
}

void kallogflush() {
    std::lock_guard lock(debug_mutex);
    if (S.debugfile)
        fflush(S.debugfile);
}

unsigned kalgetcurrentloglevel() {
    return debuglevel;
}

void kalsetcurrentloglevel(unsigned level) {
    kallog(KAL_DEBUG, "kalsetcurrentloglevel: about to reset to level %s",
           kallog_level_name(level));
    {
        std::lock_guard lock(debug_mutex);
        if (forcedevel_present()) {
            force_devel_level();
        } else {
            debuglevel = level;
        }
    }
    kallog(KAL_NOTICE, "===== DEBUG LEVEL SET TO %s =====", kallog_level_name(debuglevel));
}

void kallogreadlevelfromfile() {
    int bad = 0;
    bool reported = false;
    const std::string path = debuglevel_path();
    {
        std::lock_guard lock(debug_mutex);
        if (forcedevel_present()) {
            force_devel_level();
        } else if (FILE* f = fopen(path.c_str(), "re")) {
            int c = fgetc(f);
            if (static_cast<unsigned>(c) <= KAL_DEVEL) {
                debuglevel = static_cast<unsigned>(c);
            } else {
                bad = c;
                reported = true;
            }
            fclose(f);
        }
    }
    if (reported)
        kallog(KAL_WARN, "kallog: read bad level char %d from %s", bad, path.c_str());
}

void kallog(int level, const char* format, ...) {
    if (must_reload_level) {
        must_reload_level = 0;
        kallog(KAL_DEBUG,
               "kallog: About to reload log level from file as requested asynchronously by "
               "previous sighup");
        kallogreadlevelfromfile();
        kallog(KAL_NOTICE, "===== DEBUG LEVEL SET TO %s =====", kallog_level_name(debuglevel));
    }

    // EMERG is never filtered and never waits for the mutex: it must get out
    // even when another thread is stuck holding it. A message above the
    // level costs no more than this test.
    if (level != KAL_EMERG && level > static_cast<int>(debuglevel.load()))
        return;
    std::unique_lock<std::mutex> lock(debug_mutex, std::defer_lock);
    if (level != KAL_EMERG) {
        lock.lock();
        if (level > static_cast<int>(debuglevel.load()))
            return;
    }

    time_t now = kal::now();
    if (now > S.rollafter)
        kal_roll(now);

    char text[kMessageBytes];
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    const char* name = kallog_level_name(static_cast<unsigned>(level));
    char line[kMessageBytes + 256];
    // EMERG holds no lock, so it may not use the shared stamp.
    const std::string emerg_stamp = level == KAL_EMERG ? ctime_text(now) : std::string();
    snprintf(line, sizeof line, "%s %s[%d] %s: %s\n",
             level == KAL_EMERG ? emerg_stamp.c_str() : stamp_text(now), S.pname.c_str(), getpid(),
             name, text);

    if (S.debugfile) {
        fputs(line, S.debugfile);
        fflush(S.debugfile);
    } else {
        // Text from outside may hold '%': never hand it to syslog as a format.
        syslog(LOG_USER | (level == KAL_DEVEL ? LOG_DEBUG : (level & LOG_PRIMASK)), "%s", text);
    }

    if (level > KAL_WARN && S.developer_logging == 0)
        return;
    FILE* echo = S.mystderr ? S.mystderr : stderr;
    fputs(line, echo);
    fflush(echo);
    if (level <= KAL_WARN)
        syslog(LOG_USER | LOG_ERR, "Orvane %s: %s", name, text);
}

void kal_save_stderr() {
    int fd = dup(2);
    if (fd == -1) {
        int e = errno;
        kallog(KAL_DEBUG, "Error protecting fd2: %d-%s", e, strerror(e));
        return;
    }
    bool failed = false;
    int err = 0;
    {
        std::lock_guard lock(debug_mutex);
        S.protectedfd = fd;
        if (S.mystderr) {
            fflush(S.mystderr);
            if (fileno(S.mystderr) != 2)
                fclose(S.mystderr);
        }
        S.mystderr = fdopen(fd, "w");
        if (!S.mystderr) {
            failed = true;
            err = errno;
        }
    }
    if (failed)
        kallog(KAL_ERR, "could not open mystderr: %d-%s", err, strerror(err));
    kallog(KAL_DEBUG, "Protecting fd2 as fd%d", fd);
}

void kal_restore_stderr() {
    int fd;
    {
        std::lock_guard lock(debug_mutex);
        fd = S.protectedfd;
    }
    if (fd == -1) {
        kallog(KAL_WARN, "Couldn't restore stderr! (protectedfd==-1)");
        return;
    }
    if (dup2(fd, 2) == -1) {
        int e = errno;
        kallog(KAL_DEBUG, "Error restoring fd2: %d-%s", e, strerror(e));
        return;
    }
    kallog(KAL_DEBUG, "Restoring fd2 from fd%d", fd);
    bool failed = false;
    int err = 0;
    {
        std::lock_guard lock(debug_mutex);
        if (S.mystderr) {
            fflush(S.mystderr);
            // mystderr owns protectedfd: closing the stream closes it.
            if (fileno(S.mystderr) != 2)
                fclose(S.mystderr);
            else
                ::close(S.protectedfd);
        } else {
            ::close(S.protectedfd);
        }
        S.protectedfd = -1;
        S.mystderr = fdopen(2, "w");
        if (!S.mystderr) {
            failed = true;
            err = errno;
        }
    }
    if (failed)
        kallog(KAL_ERR, "could not open mystderr: %d-%s", err, strerror(err));
}
