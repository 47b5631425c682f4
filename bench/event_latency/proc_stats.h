#pragma once

// What the kernel counts for a process: CPU time from /proc/<pid>/stat
// (utime + stime, in clock ticks), context switches of each thread from
// /proc/<pid>/task/<tid>/status, and memory from /proc/<pid>/status. The
// parsers take the files' text, so they can be checked against literal text.

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kal::bench {

struct ThreadSwitches {
    std::string name;  // the thread's comm
    int64_t voluntary = 0;
    int64_t nonvoluntary = 0;
    int64_t total() const { return voluntary + nonvoluntary; }
};

struct ProcSample {
    int64_t cpu_ticks = 0;                  // utime + stime of all threads
    std::map<int, ThreadSwitches> threads;  // by thread id
    int64_t switches() const;               // over all threads
};

// utime + stime (fields 14 and 15) of a /proc/<pid>/stat text; the command
// name in parentheses may hold spaces and parentheses itself.
std::optional<int64_t> parse_stat_cpu_ticks(std::string_view stat);
// Name and context-switch counts of a /proc/<pid>/status text.
ThreadSwitches parse_status_switches(std::string_view status);
// A "<key>:  <n> kB" line of a /proc/<pid>/status text, in KiB.
std::optional<int64_t> parse_status_kib(std::string_view status, std::string_view key);

// Reads the files of a live process; nullopt when it is gone.
std::optional<ProcSample> sample_process(pid_t pid);
std::optional<int64_t> status_kib(pid_t pid, std::string_view key);
// Milliseconds per clock tick of the stat file.
double ms_per_tick();

// Switches of each thread between two samples; a thread born in between
// counts from zero, one that ended is left out.
std::map<int, ThreadSwitches> switches_between(const ProcSample& before, const ProcSample& after);

}  // namespace kal::bench
