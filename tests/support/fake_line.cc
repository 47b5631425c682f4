#include "fake_line.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <utility>

#include "core/device_table.h"
#include "core/line_node.h"
#include "lineio/intrapc.h"
#include "lineio/safe_io.h"
#include "lineio/timers.h"
#include "log/kallog.h"
#include "service/vocabulary.h"

namespace kal::test {

namespace {

// The id of settle()'s marker timers: no node has this address.
constexpr TimerOwner kSentinelId = -2;
// Enough for any chain of commands a node queues in reply to one event.
constexpr int kMaxPassesPerDrain = 10000;

// Half past midnight today, local time: the log rolls at midnight, so a
// test has nearly a day of driven time before it would.
time_t half_past_midnight() {
    time_t now = time(nullptr);
    struct tm tm {};
    localtime_r(&now, &tm);
    tm.tm_hour = 0;
    tm.tm_min = 30;
    tm.tm_sec = 0;
    tm.tm_isdst = -1;
    return mktime(&tm);
}

// Size of the file the log writes to, or 0 without one.
off_t log_size() {
    struct stat st {};
    const int fd = kallog_debugfd();
    return fd >= 0 && fstat(fd, &st) == 0 ? st.st_size : 0;
}

const Value* find_key(const Notification& n, const char* key) {
    auto it = n.userInfo.find(key);
    return it == n.userInfo.end() ? nullptr : &it->second;
}

Report flatten(const Notification& n) {
    Report r;
    const Value* name = find_key(n, kal_NotificationNameKey);
    r.name = name ? name->str() : n.name;
    if (const Value* v = find_key(n, kal_Token))
        r.token = v->str();
    if (const Value* v = find_key(n, kal_ResponseCode))
        r.code = v->str();
    if (const Value* v = find_key(n, kal_DigitContentsKey))
        r.cause = v->str();
    if (const Value* v = find_key(n, kal_HookContentsKey); v && v->is<int32_t>())
        r.onHook = v->as<int32_t>();
    r.serial = n.object.str();
    r.raw = n;
    return r;
}

}  // namespace

lm::lm_audio_request LineCommand::audio() const {
    return bytes.empty() ? lm::lm_audio_request{}
                         : lm::parse_audio_request(bytes.data() + 1, bytes.size() - 1);
}

lm::lm_call_request LineCommand::call() const {
    return bytes.empty() ? lm::lm_call_request{}
                         : lm::parse_call_request(bytes.data() + 1, bytes.size() - 1);
}

int32_t LineCommand::value() const {
    return lm::get_i32(bytes.data(), bytes.size(), 1);
}

FakeLines::FakeLines(int count) : clock_(half_past_midnight()) {
    set_clock(&clock_);
    clock_.add_listener(kick_timer_thread);
    kallogregister("KALDeviceMaster");
    kallogflush();
    logStart_ = log_size();
    // The pipes live as long as the process, as in the daemon.
    static const bool pipes_made = (init_lmcomm_intrapc(), true);
    (void)pipes_made;

    DeviceTableLock table_lock(kTableChange);
    gLines.clear();
    for (int i = 0; i < count; ++i) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
            ADD_FAILURE() << "socketpair failed";
            break;
        }
        qlx rec;
        rec.serial = serial(i);
        rec.ttyDevice = "ttyFAKE" + std::to_string(i);
        rec.calloutDevice = "/dev/ttyFAKE" + std::to_string(i);
        rec.fd.reset(sv[0]);
        rec.pid = -1;  // no process: kill_qlx never signals anything
        set_line_status(rec, QLX_STATUS_UP, "a fake line");
        rec.deviceType = 1;
        gLines.push_back(std::move(rec));
        peers_.emplace_back(sv[1]);
    }
    gLinecount = static_cast<int>(gLines.size());
    table_lock.unlock();
    bounds_ = calc_fdbounds();

    observer_ = NotificationCenter::defaultCenter().addObserver("", [this](const Notification& n) {
        std::lock_guard lock(mutex_);
        reports_.push_back(flatten(n));
        cv_.notify_all();
    });
}

FakeLines::~FakeLines() {
    // Every node still on a line or tracked leaves now...
    std::vector<std::shared_ptr<Node>> leftover;
    {
        DeviceTableLock lock(kTableRead);
        for (const qlx& rec : gLines)
            if (auto node = std::dynamic_pointer_cast<Node>(rec.node.lock()))
                leftover.push_back(std::move(node));
    }
    for (auto& weak : tracked_)
        if (auto node = weak.lock())
            leftover.push_back(std::move(node));
    for (auto& node : leftover)
        if (!node->isTornDown())
            node->teardown();
    leftover.clear();
    drain();

    // ...and every pending timer fires on the driven clock, which frees the
    // nodes. Torn-down nodes arm no new timers, so this ends.
    for (int round = 0; round < 1000 && pending_timer_count() > 0; ++round) {
        clock_.advance(3600);
        settle();
    }
    EXPECT_EQ(pending_timer_count(), 0) << "timers still pending after the test";
    // The timer thread reads the clock until it ends: it must be gone
    // before the ManualClock is.
    EXPECT_TRUE(wait_for([] { return !timer_thread_running(); }));
    drain();

    NotificationCenter::defaultCenter().removeObserver(observer_);
    set_clock(nullptr);

    DeviceTableLock lock(kTableChange);
    install_device_table({});
}

std::string FakeLines::serial(int line) {
    return "FAKE" + std::to_string(line);
}

void FakeLines::settle() {
    uint64_t target;
    {
        std::lock_guard lock(mutex_);
        target = sentinels_ + 1;
    }
    // Due now, so queued behind every timer due by now: when it has run,
    // so have they.
    add_timer_in(
        0,
        [this](TimerOwner, int) {
            std::lock_guard lock(mutex_);
            ++sentinels_;
            cv_.notify_all();
        },
        kSentinelId, 0);
    std::unique_lock lock(mutex_);
    if (!cv_.wait_for(lock, 10s, [&] { return sentinels_ >= target; }))
        ADD_FAILURE() << "timer thread did not reach the settle marker";
}

void FakeLines::advance(int seconds) {
    for (int i = 0; i < seconds; ++i) {
        clock_.advance(1);
        // A running thread may be inside a callback it has already taken
        // off the list: settle behind it too.
        if (pending_timer_count() > 0 || timer_thread_running())
            settle();
    }
}

void FakeLines::writeFrame(const std::string& payload, int line) {
    const ssize_t n = dmp_write(peers_.at(line).get(), payload.data(), payload.size());
    EXPECT_EQ(n, static_cast<ssize_t>(payload.size())) << "writing a frame to the daemon";
}

void FakeLines::sendEvent(const std::string& payload, int line) {
    writeFrame(payload, line);
    drain();
}

void FakeLines::sendDigit(char digit, int line) {
    sendEvent(std::string{lm::kEvtDigit, digit}, line);
}

void FakeLines::sendAudioResponse(const std::string& token, int32_t status, char stopChar,
                                  int line) {
    lm::lm_audio_response r;
    r.token = token;
    r.status = status;
    r.stopChar = stopChar;
    sendEvent(lm::build_audio_response(r), line);
}

bool FakeLines::anythingReady() {
    std::vector<pollfd> fds;
    fds.push_back({lmthread_babymonitor_socket_private, POLLIN, 0});
    fds.push_back({lmthread_userisr_socket_private, POLLIN, 0});
    {
        DeviceTableLock lock(kTableRead);
        for (const qlx& rec : gLines)
            if (rec.status() == QLX_STATUS_UP && rec.fd)
                fds.push_back({rec.fd.get(), POLLIN, 0});
    }
    return poll(fds.data(), fds.size(), 0) > 0;
}

void FakeLines::drain() {
    int passes = 0;
    while (anythingReady()) {
        if (++passes > kMaxPassesPerDrain) {
            ADD_FAILURE() << "line event passes never ran dry";
            return;
        }
        lineisr_pass(bounds_);
    }
}

std::optional<LineCommand> FakeLines::nextCommand(int line) {
    drain();
    char buf[lm::kEventBufferSize] = {};
    const ssize_t n = dmp_read(peers_.at(line).get(), buf, sizeof buf, 0);
    if (n <= 0)
        return std::nullopt;
    return LineCommand{std::string(buf, static_cast<size_t>(n))};
}

std::vector<LineCommand> FakeLines::commands(int line) {
    std::vector<LineCommand> all;
    while (auto c = nextCommand(line))
        all.push_back(std::move(*c));
    return all;
}

std::vector<Report> FakeLines::reports() const {
    std::lock_guard lock(mutex_);
    return reports_;
}

std::vector<Report> FakeLines::completions() const {
    std::vector<Report> out;
    for (auto& r : reports())
        if (r.name == kal_RequestComplete)
            out.push_back(r);
    return out;
}

bool FakeLines::waitForReports(size_t count, std::chrono::milliseconds deadline) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, deadline, [&] { return reports_.size() >= count; });
}

void FakeLines::clearReports() {
    std::lock_guard lock(mutex_);
    reports_.clear();
}

qlx& FakeLines::record(int line) {
    return gLines.at(static_cast<size_t>(line));
}

std::shared_ptr<Node> FakeLines::nodeOn(int line) {
    DeviceTableLock lock(kTableRead);
    return std::dynamic_pointer_cast<Node>(gLines.at(static_cast<size_t>(line)).node.lock());
}

void FakeLines::loseDevice(int line) {
    DeviceTableLock lock(kTableChange);
    std::shared_ptr<LineNode> node = gLines.at(static_cast<size_t>(line)).node.lock();
    if (node)
        node_devicelost(*node);
}

void FakeLines::replaceTable() {
    DeviceTableLock lock(kTableChange);
    std::vector<qlx> fresh;
    fresh.reserve(gLines.size());
    for (qlx& old : gLines)
        fresh.push_back(std::exchange(old, qlx{}));
    for (qlx& rec : fresh)
        if (auto node = rec.node.lock())
            node_setdeviceptr(*node, &rec);
    install_device_table(std::move(fresh));  // the old records are freed here
}

std::string FakeLines::audioFile(const std::string& name, size_t bytes) {
    const std::string path = root_.path() + "/" + name;
    std::string samples(bytes, '\0');
    for (size_t i = 0; i < bytes; ++i)
        samples[i] = static_cast<char>(i % 20 < 10 ? 0x90 : 0x70);
    write_file(path, samples);
    return path;
}

std::string FakeLines::log() const {
    // Through the log's own descriptor: the log stays with the file it
    // opened first, even when an earlier FakeLines of this process made it
    // in a private root that is gone now.
    kallogflush();
    const int fd = kallog_debugfd();
    if (fd < 0)
        return {};
    const std::string all = read_file("/proc/self/fd/" + std::to_string(fd));
    return all.size() > static_cast<size_t>(logStart_) ? all.substr(static_cast<size_t>(logStart_))
                                                       : std::string();
}

int FakeLines::countInLog(const std::string& text) const {
    const std::string l = log();
    int n = 0;
    for (auto at = l.find(text); at != std::string::npos; at = l.find(text, at + 1))
        ++n;
    return n;
}

}  // namespace kal::test
