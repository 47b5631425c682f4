#include "answer/audio.h"

#include <fcntl.h>
#include <samplerate.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include "base/unique_fd.h"

namespace fs = std::filesystem;

namespace kal::answer {

namespace {

struct SndfileCloser {
    void operator()(SNDFILE* f) const { sf_close(f); }
};
using SndfilePtr = std::unique_ptr<SNDFILE, SndfileCloser>;

SndfilePtr open_for_reading(const std::string& path, SF_INFO& info) {
    info = {};
    SndfilePtr f(sf_open(path.c_str(), SFM_READ, &info));
    if (!f)
        throw AudioError("cannot read " + path + " as audio: " + sf_strerror(nullptr));
    if (info.channels < 1 || info.samplerate < 1)
        throw AudioError(path + " has no usable audio (" + std::to_string(info.channels) +
                         " channels at " + std::to_string(info.samplerate) + " Hz)");
    return f;
}

std::string format_name(int format) {
    const auto describe = [](int command, int value) {
        SF_FORMAT_INFO fi{};
        fi.format = value;
        if (sf_command(nullptr, command, &fi, sizeof fi) != 0 || !fi.name)
            return std::string("?");
        return std::string(fi.name);
    };
    return describe(SFC_GET_FORMAT_INFO, format & SF_FORMAT_TYPEMASK) + ", " +
           describe(SFC_GET_FORMAT_INFO, format & SF_FORMAT_SUBMASK);
}

uint8_t to_unsigned8(float x) {
    const float v = std::round(std::clamp(x, -1.0f, 1.0f) * 127.0f) + 128.0f;
    return static_cast<uint8_t>(std::clamp(v, 0.0f, 255.0f));
}

void write_all(int fd, const uint8_t* data, size_t size, const std::string& path) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw AudioError("cannot write " + path + ": " + std::strerror(errno));
        data += n;
        size -= static_cast<size_t>(n);
    }
}

// Writes through `fill` into a temporary file beside `path`, then renames it
// into place; the temporary file is removed when anything fails.
void write_atomically(const std::string& path,
                      const std::function<void(const std::string&)>& fill) {
    std::string tmp = fs::path(path).parent_path().string() + "/." +
                      fs::path(path).filename().string() + ".XXXXXX";
    unique_fd fd(::mkstemp(tmp.data()));
    if (!fd)
        throw AudioError("cannot write beside " + path + ": " + std::strerror(errno));
    ::fchmod(fd.get(), 0644);
    fd.reset();
    try {
        fill(tmp);
        unique_fd sync(::open(tmp.c_str(), O_RDONLY | O_CLOEXEC));
        if (!sync || ::fsync(sync.get()) != 0)
            throw AudioError("cannot sync " + tmp + ": " + std::strerror(errno));
        if (::rename(tmp.c_str(), path.c_str()) != 0)
            throw AudioError("cannot rename " + tmp + " to " + path + ": " + std::strerror(errno));
    } catch (...) {
        ::unlink(tmp.c_str());
        throw;
    }
}

}  // namespace

AudioInfo probe_audio(const std::string& path) {
    SF_INFO info;
    SndfilePtr f = open_for_reading(path, info);
    return AudioInfo{info.samplerate, info.channels, info.frames, format_name(info.format)};
}

std::vector<uint8_t> decode_for_line(const std::string& path) {
    SF_INFO info;
    SndfilePtr f = open_for_reading(path, info);
    // Mix down to mono as it is read.
    std::vector<float> mono;
    std::vector<float> block(4096 * static_cast<size_t>(info.channels));
    for (;;) {
        const sf_count_t n = sf_readf_float(f.get(), block.data(), 4096);
        if (n <= 0)
            break;
        for (sf_count_t i = 0; i < n; ++i) {
            float sum = 0;
            for (int c = 0; c < info.channels; ++c)
                sum += block[static_cast<size_t>(i * info.channels + c)];
            mono.push_back(sum / static_cast<float>(info.channels));
        }
    }
    if (sf_error(f.get()) != SF_ERR_NO_ERROR)
        throw AudioError("cannot decode " + path + ": " + sf_strerror(f.get()));
    if (mono.empty())
        throw AudioError(path + " holds no audio");

    std::vector<float> at_line_rate;
    if (info.samplerate == kLineRate) {
        at_line_rate = std::move(mono);
    } else {
        const double ratio = static_cast<double>(kLineRate) / info.samplerate;
        at_line_rate.resize(static_cast<size_t>(std::ceil(mono.size() * ratio)) + 16);
        SRC_DATA data{};
        data.data_in = mono.data();
        data.input_frames = static_cast<long>(mono.size());
        data.data_out = at_line_rate.data();
        data.output_frames = static_cast<long>(at_line_rate.size());
        data.src_ratio = ratio;
        const int rc = src_simple(&data, SRC_SINC_MEDIUM_QUALITY, 1);
        if (rc != 0)
            throw AudioError("cannot resample " + path + " from " +
                             std::to_string(info.samplerate) + " Hz: " + src_strerror(rc));
        at_line_rate.resize(static_cast<size_t>(data.output_frames_gen));
    }
    std::vector<uint8_t> out(at_line_rate.size());
    std::transform(at_line_rate.begin(), at_line_rate.end(), out.begin(), to_unsigned8);
    return out;
}

void write_raw(const std::string& path, const std::vector<uint8_t>& samples) {
    write_atomically(path, [&](const std::string& tmp) {
        unique_fd fd(::open(tmp.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
        if (!fd)
            throw AudioError("cannot write " + tmp + ": " + std::strerror(errno));
        write_all(fd.get(), samples.data(), samples.size(), tmp);
    });
}

std::vector<uint8_t> read_raw(const std::string& path) {
    unique_fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        throw AudioError("cannot read " + path + ": " + std::strerror(errno));
    std::vector<uint8_t> out;
    uint8_t buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw AudioError("cannot read " + path + ": " + std::strerror(errno));
        if (n == 0)
            return out;
        out.insert(out.end(), buf, buf + n);
    }
}

std::vector<uint8_t> trim_trailing_silence(const std::vector<uint8_t>& samples, int threshold,
                                           int keep_ms) {
    size_t end = samples.size();
    while (end > 0 && std::abs(static_cast<int>(samples[end - 1]) - kLineSilence) <= threshold)
        --end;
    end = std::min(samples.size(), end + static_cast<size_t>(keep_ms) * kLineRate / 1000);
    return std::vector<uint8_t>(samples.begin(), samples.begin() + static_cast<ptrdiff_t>(end));
}

void write_wav(const std::string& path, const std::vector<uint8_t>& samples) {
    write_atomically(path, [&](const std::string& tmp) {
        SF_INFO info{};
        info.samplerate = kLineRate;
        info.channels = 1;
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_U8;
        SndfilePtr f(sf_open(tmp.c_str(), SFM_WRITE, &info));
        if (!f)
            throw AudioError("cannot write " + tmp + " as WAV: " + sf_strerror(nullptr));
        // libsndfile's 8-bit WAV is unsigned already: the samples go as
        // they are, through the raw interface.
        const sf_count_t n =
            sf_write_raw(f.get(), samples.data(), static_cast<sf_count_t>(samples.size()));
        if (n != static_cast<sf_count_t>(samples.size()))
            throw AudioError("cannot write " + tmp + ": " + sf_strerror(f.get()));
        f.reset();
    });
}

GreetingCache::GreetingCache(std::string dir) : dir_(std::move(dir)) {
    std::error_code ec;
    fs::create_directories(dir_, ec);
    if (ec)
        throw AudioError("cannot make the greeting cache " + dir_ + ": " + ec.message());
    // The daemon's user reads the cached greetings.
    ::chmod(dir_.c_str(), 0755);
}

std::string GreetingCache::get(const std::string& source) {
    struct stat st {};
    if (::stat(source.c_str(), &st) != 0)
        throw AudioError("cannot read " + source + ": " + std::strerror(errno));
    const std::string key = source + "\n" + std::to_string(st.st_size) + "\n" +
                            std::to_string(st.st_mtim.tv_sec) + "." +
                            std::to_string(st.st_mtim.tv_nsec);
    char hex[17];
    snprintf(hex, sizeof hex, "%016zx", std::hash<std::string>{}(key));
    const std::string cached = dir_ + "/" + fs::path(source).stem().string() + "-" + hex + ".raw";
    std::error_code ec;
    if (fs::is_regular_file(cached, ec))
        return cached;
    write_raw(cached, decode_for_line(source));
    return cached;
}

}  // namespace kal::answer
