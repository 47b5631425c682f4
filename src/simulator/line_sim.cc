#include "simulator/line_sim.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "simctl/trace.h"
#include "simulator/describe.h"

namespace kal::linesim {

using simctl::fail;
using simctl::trace;

namespace {

// The logs keep this many entries; older ones are dropped.
constexpr size_t kLogLimit = 10000;
// A recording is written in steps of this much real time.
constexpr auto kRecordTick = std::chrono::milliseconds(20);
// Simulated time between a call request and its `/` reply.
constexpr double kCallSeconds = 1.0;
// Record flag bit read as "append to the file".
constexpr int32_t kRecordAppend = 0x40;

// One period of a 400 Hz tone at 8000 samples a second, unsigned 8-bit.
const std::string& tone_period() {
    static const std::string period = [] {
        std::string p;
        for (int i = 0; i < 20; ++i)
            p += static_cast<char>(128 + std::lround(48 * std::sin(2 * M_PI * i / 20)));
        return p;
    }();
    return period;
}

template <typename T>
void push_capped(std::deque<T>& log, T entry) {
    if (log.size() >= kLogLimit)
        log.pop_front();
    log.push_back(std::move(entry));
}

// The character an event is matched against a stop string with.
char stop_match_char(char c, std::string_view rest) {
    if (c == lm::kEvtDigit && !rest.empty())
        return rest[0];
    return c;
}

double seconds_between(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

}  // namespace

LineSim::LineSim(Identity id, double speed, LineOutput& out)
    : id_(std::move(id)), speed_(speed), out_(out) {}

LineSim::~LineSim() = default;

void LineSim::set_orders(const lm::lm_orders& orders, int fd) {
    orders_ = orders;
    orders_fd_ = fd;
    have_orders_ = true;
}

Clock::duration LineSim::scaled(double seconds) const {
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::max(0.0, seconds) / speed_));
}

// ---------------------------------------------------------------------------
// Commands from the daemon

void LineSim::on_message(const char* data, size_t len, Clock::time_point now) {
    std::string text = describe_command(data, len);
    trace("command %s", text.c_str());
    push_capped(received_, Received{len ? data[0] : '\0', std::move(text)});
    if (!lm::command_well_formed(data, len))
        return;

    switch (data[0]) {
        case lm::kCmdPlay:
            start_audio(AudioKind::Play, lm::parse_audio_request(data + 1, len - 1), now);
            break;
        case lm::kCmdRecord:
            start_audio(AudioKind::Record, lm::parse_audio_request(data + 1, len - 1), now);
            break;
        case lm::kCmdCancelAudio:
            if (audio_)
                finish(lm::kAudioStopped, lm::kCmdCancelAudio, now);
            break;
        case lm::kCmdHangup:
            hang_up(now);
            break;
        case lm::kCmdDial:
            seize();
            dialed_ = std::string(data + 1);
            break;
        case lm::kCmdCall: {
            auto call = lm::parse_call_request(data + 1, len - 1);
            seize();
            dialed_ = call.number;
            calls_.push_back({now + scaled(kCallSeconds), call.token});
            break;
        }
        case lm::kCmdDeadman:
            deadman_seconds_ = lm::get_i32(data, len, 1);
            deadman_expired_ = false;
            if (deadman_seconds_ > 0)
                deadman_ = now + std::chrono::seconds(deadman_seconds_);
            else
                deadman_.reset();
            break;
        case lm::kCmdBeep:
            ++beeps_;
            break;
        case lm::kCmdTRV:
            ++trvs_;
            break;
    }
}

void LineSim::start_audio(AudioKind kind, const lm::lm_audio_request& req, Clock::time_point now) {
    if (audio_) {
        reply(req.token, lm::kAudioBusy);
        return;
    }
    if (kind == AudioKind::Record && !req.firstDialing.empty()) {
        seize();
        dialed_ = req.firstDialing;
    } else if (!connected()) {
        if (!ringing_) {
            reply(req.token, lm::kAudioOnHook);
            return;
        }
        seize();  // answer the ringing line
    }

    Audio a;
    a.kind = kind;
    a.req = req;
    a.start = now;
    if (kind == AudioKind::Play) {
        kal::unique_fd fd(req.path.empty() ? -1 : ::open(req.path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st;
        if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
            reply(req.token, lm::kAudioInvalidFile);
            return;
        }
        a.total = st.st_size;
        a.sound_end = now + scaled(static_cast<double>(a.total) / lm::kAudioBytesPerSecond);
        a.end = a.sound_end + scaled(req.postPlayPause);
    } else {
        int flags =
            O_WRONLY | O_CREAT | O_CLOEXEC | ((req.flags & kRecordAppend) ? O_APPEND : O_TRUNC);
        a.file.reset(req.path.empty() ? -1 : ::open(req.path.c_str(), flags, 0644));
        if (!a.file) {
            reply(req.token, lm::kAudioInvalidFile);
            return;
        }
        a.unlimited = req.length <= 0;
        a.total = a.unlimited ? 0 : static_cast<long long>(req.length) * lm::kAudioBytesPerSecond;
        a.sound_end = a.end = a.unlimited ? Clock::time_point::max() : now + scaled(req.length);
        a.next_tick = now + kRecordTick;
    }
    audio_ = std::move(a);
}

void LineSim::hang_up(Clock::time_point now) {
    if (audio_)
        finish(lm::kAudioStopped, lm::kCmdCancelAudio, now);
    seized_ = false;
    ringing_ = false;
    calls_.clear();
    deadman_.reset();
}

// ---------------------------------------------------------------------------
// Audio

void LineSim::write_recording(Clock::time_point now) {
    Audio& a = *audio_;
    double secs = seconds_between(a.start, std::min(now, a.sound_end)) * speed_;
    long long due = static_cast<long long>(secs * lm::kAudioBytesPerSecond);
    if (!a.unlimited)
        due = std::min(due, a.total);
    if (now >= a.sound_end && !a.unlimited)
        due = a.total;
    const std::string& period = tone_period();
    std::string chunk;
    while (a.done < due && a.file) {
        size_t n = static_cast<size_t>(std::min<long long>(due - a.done, 65536));
        chunk.resize(n);
        for (size_t i = 0; i < n; ++i)
            chunk[i] = period[(a.done + static_cast<long long>(i)) % period.size()];
        ssize_t w = ::write(a.file.get(), chunk.data(), n);
        if (w <= 0) {
            if (w < 0 && errno == EINTR)
                continue;
            fail("writing %s: %s; the recording ends here", a.req.path.c_str(), strerror(errno));
            a.file.reset();
            a.total = a.done;
            a.unlimited = false;
            a.sound_end = a.end = now;
            break;
        }
        a.done += w;
    }
}

long long LineSim::end_audio(Clock::time_point now) {
    Audio& a = *audio_;
    long long bytes;
    if (a.kind == AudioKind::Record) {
        write_recording(now);
        bytes = a.done;
    } else {
        double secs = seconds_between(a.start, now) * speed_;
        bytes = std::min(a.total, static_cast<long long>(secs * lm::kAudioBytesPerSecond));
    }
    audio_.reset();  // closes a recording
    return bytes;
}

void LineSim::finish(int32_t status, char stop_char, Clock::time_point now) {
    std::string token = audio_->req.token;
    long long bytes = end_audio(now);
    reply(token, status, stop_char, static_cast<int32_t>(std::min<long long>(bytes, INT32_MAX)));
}

bool LineSim::stop_audio(char stop_char, Clock::time_point now) {
    if (!audio_)
        return false;
    finish(lm::kAudioStopped, stop_char, now);
    return true;
}

bool LineSim::finish_audio(Clock::time_point now) {
    if (!audio_)
        return false;
    if (audio_->kind == AudioKind::Play)
        now = std::max(now, audio_->sound_end);  // the whole file counts as played
    finish(lm::kAudioComplete, 0, now);
    return true;
}

// ---------------------------------------------------------------------------
// Time

std::optional<Clock::time_point> LineSim::next_deadline() const {
    std::optional<Clock::time_point> next;
    auto consider = [&](Clock::time_point t) {
        if (!next || t < *next)
            next = t;
    };
    if (audio_)
        consider(audio_->kind == AudioKind::Play ? audio_->end
                                                 : std::min(audio_->next_tick, audio_->end));
    if (deadman_)
        consider(*deadman_);
    if (!calls_.empty())
        consider(calls_.front().due);
    return next;
}

void LineSim::on_time(Clock::time_point now) {
    if (audio_) {
        if (now >= audio_->end) {
            finish(lm::kAudioComplete, 0, now);
        } else if (audio_->kind == AudioKind::Record && now >= audio_->next_tick) {
            write_recording(now);
            if (audio_->end <= now)  // a write failure ended it
                finish(lm::kAudioComplete, 0, now);
            else
                audio_->next_tick = now + kRecordTick;
        }
    }
    while (!calls_.empty() && calls_.front().due <= now) {
        std::string payload(1, lm::kEvtCallPlaced);
        payload += calls_.front().token;
        payload += '\0';
        calls_.pop_front();
        send_frame(payload);
    }
    if (deadman_ && *deadman_ <= now) {
        trace("deadman of %d s expired: hanging up", deadman_seconds_);
        deadman_expired_ = true;
        hang_up(now);
    }
}

// ---------------------------------------------------------------------------
// Driving

std::optional<std::string> LineSim::event(char c, std::string_view rest, Clock::time_point now) {
    const char match = stop_match_char(c, rest);
    std::optional<std::string> token;
    long long bytes = 0;
    if (audio_ && match != '\0' && audio_->req.stopString.find(match) != std::string::npos) {
        token = audio_->req.token;
        bytes = end_audio(now);
    }
    std::string payload(1, c);
    payload.append(rest);
    send_frame(payload);
    if (token)
        reply(*token, lm::kAudioStopped, match,
              static_cast<int32_t>(std::min<long long>(bytes, INT32_MAX)));
    return token;
}

std::optional<std::string> LineSim::ring(Clock::time_point now) {
    if (!connected())
        ringing_ = true;
    return event(lm::kEvtRing, "", now);
}

std::optional<std::string> LineSim::set_hook(bool off_hook, bool notify, Clock::time_point now) {
    off_hook_ = off_hook;
    if (off_hook)
        ringing_ = false;  // answered by hand
    if (!notify)
        return std::nullopt;
    return event(off_hook ? lm::kEvtOffHook : lm::kEvtOnHook, "", now);
}

void LineSim::reply(const std::string& token, int32_t status, char stop_char, int32_t extra) {
    send_audio_reply(token, status, stop_char, extra);
}

void LineSim::send_audio_reply(const std::string& token, int32_t status, char stop_char,
                               int32_t extra) {
    lm::lm_audio_response r;
    r.token = token;
    r.status = status;
    r.stopChar = stop_char;
    r.extra = extra;
    send_frame(lm::build_audio_response(r));
}

void LineSim::send_frame(const std::string& payload) {
    std::string text = describe_event(payload);
    trace("event %s", text.c_str());
    push_capped(sent_, std::move(text));
    out_.send_frame(payload);
}

void LineSim::send_raw(const std::string& bytes) {
    std::string text = "raw hex=" + to_hex(bytes);
    trace("%s", text.c_str());
    push_capped(sent_, std::move(text));
    out_.send_raw(bytes);
}

// ---------------------------------------------------------------------------
// Reading back

std::optional<std::string> LineSim::take_command(std::optional<char> c) {
    for (auto& r : received_) {
        if (!r.taken && (!c || r.command == *c)) {
            r.taken = true;
            return r.text;
        }
    }
    return std::nullopt;
}

bool LineSim::has_command(std::optional<char> c) const {
    for (const auto& r : received_)
        if (!r.taken && (!c || r.command == *c))
            return true;
    return false;
}

void LineSim::clear_logs() {
    received_.clear();
    sent_.clear();
}

void LineSim::note_usr1() {
    trace("SIGUSR1: noted, carrying on");
    ++usr1_;
}

std::string LineSim::status_text(Clock::time_point now) const {
    auto yes = [](bool b) { return b ? "yes" : "no"; };
    std::string s = std::string("hook=") + (off_hook_ ? "off" : "on") + " seized=" + yes(seized_) +
                    " ringing=" + yes(ringing_);
    if (!audio_) {
        s += " audio=none";
    } else {
        const Audio& a = *audio_;
        const char* what = a.kind == AudioKind::Record ? "record"
                           : now < a.sound_end         ? "play"
                                                       : "pause";
        char elapsed[32];
        snprintf(elapsed, sizeof elapsed, "%.2f", seconds_between(a.start, now) * speed_);
        s += std::string(" audio=") + what + " token=" + quote(a.req.token) +
             " path=" + quote(a.req.path) + " stop=" + quote(a.req.stopString) +
             " elapsed=" + elapsed + "s";
    }
    s += " dialed=" + quote(dialed_);
    if (deadman_) {
        char left[32];
        snprintf(left, sizeof left, "%.1fs", std::max(0.0, seconds_between(now, *deadman_)));
        s += std::string(" deadman=") + left;
    } else {
        s += deadman_expired_ ? " deadman=expired" : " deadman=off";
    }
    char speed[32];
    snprintf(speed, sizeof speed, "%g", speed_);
    s += " beeps=" + std::to_string(beeps_) + " trvs=" + std::to_string(trvs_) +
         " usr1=" + std::to_string(usr1_) + " speed=" + speed +
         " commands=" + std::to_string(received_.size()) + " sent=" + std::to_string(sent_.size());
    return s;
}

std::string LineSim::orders_text() const {
    if (!have_orders_)
        return "no orders";
    return "fd=" + std::to_string(orders_fd_) + " line=" + quote(orders_.line) +
           " serial=" + quote(orders_.serial) + " extra=" + quote(orders_.extra) +
           " program=" + quote(id_.program) + " argv-line=" + quote(id_.line) +
           " argv-serial=" + quote(id_.serial);
}

}  // namespace kal::linesim
