#include "proc_stats.h"

#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kal::bench {

namespace {

std::optional<std::string> slurp(const std::string& path) {
    std::ifstream in(path);
    if (!in)
        return std::nullopt;
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::optional<int64_t> to_int(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    int64_t v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end == text.data())
        return std::nullopt;
    return v;
}

// The value after "<key>:" on its own line of a status text.
std::optional<std::string_view> status_field(std::string_view status, std::string_view key) {
    size_t at = 0;
    while (at < status.size()) {
        size_t eol = status.find('\n', at);
        if (eol == std::string_view::npos)
            eol = status.size();
        std::string_view line = status.substr(at, eol - at);
        if (line.size() > key.size() && line.substr(0, key.size()) == key &&
            line[key.size()] == ':')
            return line.substr(key.size() + 1);
        at = eol + 1;
    }
    return std::nullopt;
}

}  // namespace

int64_t ProcSample::switches() const {
    int64_t n = 0;
    for (const auto& [tid, t] : threads)
        n += t.total();
    return n;
}

std::optional<int64_t> parse_stat_cpu_ticks(std::string_view stat) {
    const size_t paren = stat.rfind(')');
    if (paren == std::string_view::npos)
        return std::nullopt;
    // Field 3 (the state) follows ") "; utime is field 14, stime 15.
    std::string_view rest = stat.substr(paren + 1);
    int64_t sum = 0;
    for (int field = 3; field <= 15; ++field) {
        while (!rest.empty() && rest.front() == ' ')
            rest.remove_prefix(1);
        const size_t end = rest.find(' ');
        const std::string_view word = rest.substr(0, end);
        if (word.empty())
            return std::nullopt;
        if (field >= 14) {
            auto v = to_int(word);
            if (!v)
                return std::nullopt;
            sum += *v;
        }
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
    }
    return sum;
}

ThreadSwitches parse_status_switches(std::string_view status) {
    ThreadSwitches t;
    if (auto name = status_field(status, "Name")) {
        while (!name->empty() && (name->front() == ' ' || name->front() == '\t'))
            name->remove_prefix(1);
        t.name = std::string(*name);
    }
    if (auto v = status_field(status, "voluntary_ctxt_switches"))
        t.voluntary = to_int(*v).value_or(0);
    if (auto v = status_field(status, "nonvoluntary_ctxt_switches"))
        t.nonvoluntary = to_int(*v).value_or(0);
    return t;
}

std::optional<int64_t> parse_status_kib(std::string_view status, std::string_view key) {
    auto v = status_field(status, key);
    return v ? to_int(*v) : std::nullopt;
}

std::optional<ProcSample> sample_process(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid);
    auto stat = slurp(dir + "/stat");
    if (!stat)
        return std::nullopt;
    ProcSample s;
    s.cpu_ticks = parse_stat_cpu_ticks(*stat).value_or(0);
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir + "/task", ec)) {
        auto tid = to_int(e.path().filename().string());
        auto status = slurp(e.path().string() + "/status");
        if (tid && status)
            s.threads[static_cast<int>(*tid)] = parse_status_switches(*status);
    }
    return s;
}

std::optional<int64_t> status_kib(pid_t pid, std::string_view key) {
    auto status = slurp("/proc/" + std::to_string(pid) + "/status");
    return status ? parse_status_kib(*status, key) : std::nullopt;
}

double ms_per_tick() {
    return 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::map<int, ThreadSwitches> switches_between(const ProcSample& before, const ProcSample& after) {
    std::map<int, ThreadSwitches> out;
    for (const auto& [tid, now] : after.threads) {
        ThreadSwitches d = now;
        if (auto it = before.threads.find(tid); it != before.threads.end()) {
            d.voluntary -= it->second.voluntary;
            d.nonvoluntary -= it->second.nonvoluntary;
        }
        out[tid] = d;
    }
    return out;
}

}  // namespace kal::bench
