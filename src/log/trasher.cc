#include "log/trasher.h"

#include <dirent.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/clock.h"
#include "base/fatal.h"
#include "base/paths.h"
#include "log/kallog.h"

using namespace kal;

namespace {

void* trasher(void*) {
    for (;;) {
        do_trashing(kal::now());
        do_openbase_roll(kal::now());
        sleep(kTrashPeriodSeconds);
    }
    return nullptr;
}

// Deletes at most one ancient file; true when it did, so the caller rewinds:
// a directory stream is not trusted to stay consistent while entries go.
bool trash_one_pass(DIR* dir, const std::string& dirpath, time_t now) {
    while (struct dirent* entry = readdir(dir)) {
        const std::string path = dirpath + "/" + entry->d_name;
        struct stat st;
        if (::stat(path.c_str(), &st) != 0) {
            int e = errno;
            kallog(KAL_WARN, "Couldn't stat '%s'. Skipping this file. (%d-%s)", path.c_str(), e,
                   strerror(e));
            continue;
        }
        const long long size = st.st_size;
        const long ctime = st.st_ctime;
        // Exactly the top bit of the 16-bit mode: regular files and sockets
        // have it, directories, devices and pipes do not.
        if ((st.st_mode & 0x8000) == 0) {
            kallog(KAL_DEBUG, "Logtrasher skipping special file: '%s'", entry->d_name);
        } else if (entry->d_name[0] == '.') {
            kallog(KAL_DEBUG, "Logtrasher skipping hidden file: %s (size=%lld; ctime=%ld; now=%ld)",
                   entry->d_name, size, ctime, static_cast<long>(now));
        } else if (now - st.st_ctime < kTrashAgeSeconds) {
            kallog(KAL_DEBUG, "Logtrasher keeping recent file: %s (size=%lld; ctime=%ld; now=%ld)",
                   entry->d_name, size, ctime, static_cast<long>(now));
        } else {
            kallog(KAL_DEBUG,
                   "Logtrasher trashing ancient file: %s (size=%lld; ctime=%ld; now=%ld)",
                   path.c_str(), size, ctime, static_cast<long>(now));
            if (::unlink(path.c_str()) != 0) {
                int e = errno;
                kallog(KAL_WARN,
                       "Logtrasher failed to trash ancient file: %s (size=%lld; ctime=%ld; "
                       "now=%ld) (%d-%s)",
                       path.c_str(), size, ctime, static_cast<long>(now), e, strerror(e));
            } else {
                kallog(KAL_DEBUG, "Logtrasher rewinding directory for safety. Starting rescan.");
                return true;
            }
        }
    }
    return false;
}

}  // namespace

void start_trasher() {
    kallog(KAL_DEBUG, "Adding logtrasher thread");
    pthread_t tid;
    int rc = pthread_create(&tid, nullptr, trasher, nullptr);
    if (rc != 0) {
        kallog(KAL_ERR, "Couldn't create logtrasher thread. Quitting. (%d-%s)", rc, strerror(rc));
        dm_exit(1);
    }
    // Named for ps, top and the benchmark's per-thread figures.
    pthread_setname_np(tid, "kal-trasher");
}

void do_trashing(time_t now) {
    const std::string dirpath = log_dir();
    DIR* dir = opendir(dirpath.c_str());
    if (!dir) {
        int e = errno;
        kallog(KAL_WARN,
               "Can't open log directory %s to try to empty it out. This may cause log "
               "proliferation! (%d-%s)",
               dirpath.c_str(), e, strerror(e));
        return;
    }
    while (trash_one_pass(dir, dirpath, now))
        rewinddir(dir);
    if (closedir(dir) != 0) {
        int e = errno;
        kallog(KAL_WARN, "Couldn't close logdir %s. (%d-%s)", dirpath.c_str(), e, strerror(e));
    }
}

void do_openbase_roll(time_t now) {
    const std::string backup = openbase_backup();
    struct stat st;
    if (::stat(backup.c_str(), &st) != 0) {
        int e = errno;
        kallog(KAL_NOTICE, "Couldn't stat '%s'. Not rolling OpenBase this time. (%d-%s)",
               backup.c_str(), e, strerror(e));
        return;
    }
    char rolled[1024];
    snprintf(rolled, sizeof rolled, "%s.%ld.%d", backup.c_str(), static_cast<long>(now), getpid());
    if (::link(backup.c_str(), rolled) != 0) {
        int e = errno;
        kallog(KAL_WARN,
               "Error: Couldn't link %s to new filename %s (%d-%s). Better luck next time.\n",
               backup.c_str(), rolled, e, strerror(e));
        return;
    }
    if (::unlink(backup.c_str()) != 0) {
        int e = errno;
        kallog(KAL_WARN,
               "Error: Couldn't remove link for old log file %s (%d-%s). Better luck next time.\n",
               backup.c_str(), e, strerror(e));
        return;
    }
    kallog(KAL_DEBUG, "OpenBase roll: renamed backup %s to %s", backup.c_str(), rolled);
}
