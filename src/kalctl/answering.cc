#include "kalctl/answering.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "service/vocabulary.h"

namespace fs = std::filesystem;

namespace kal::kalctl {

namespace {

std::string errno_text(int error) {
    return std::strerror(error);
}

bool write_all(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Splits "a,b,,c" at the commas, keeping empty entries.
std::vector<std::string> split_list(const std::string& text) {
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        out.push_back(text.substr(start, comma == std::string::npos ? comma : comma - start));
        if (comma == std::string::npos)
            return out;
        start = comma + 1;
    }
}

}  // namespace

// --- AudioCopies ---------------------------------------------------------------

std::string AudioCopies::default_dir() {
    return kal_root() + "/var/tmp/kalctl-" + std::to_string(geteuid());
}

AudioCopies::AudioCopies(std::string dir) : dir_(std::move(dir)) {
    if (::mkdir(dir_.c_str(), 0700) != 0 && errno != EEXIST)
        throw Failure("cannot make the folder for audio copies " + dir_ + ": " + errno_text(errno));
    struct stat st {};
    if (::lstat(dir_.c_str(), &st) != 0)
        throw Failure("cannot use the folder for audio copies " + dir_ + ": " + errno_text(errno));
    if (!S_ISDIR(st.st_mode))
        throw Failure(dir_ + " is in the way of kalctl's audio copies: it is not a folder");
    if (st.st_uid != geteuid())
        throw Failure(dir_ +
                      " belongs to someone else: kalctl keeps its audio copies elsewhere "
                      "only when KAL_ROOT says so");
    if ((st.st_mode & 07777) != 0733 && ::chmod(dir_.c_str(), 0733) != 0)
        throw Failure("cannot open " + dir_ + " to the daemon: " + errno_text(errno));
}

std::string AudioCopies::copy(const std::string& source) const {
    unique_fd in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!in || ::fstat(in.get(), &st) != 0)
        throw Failure("cannot read " + source + ": " + errno_text(errno));
    if (!S_ISREG(st.st_mode))
        throw Failure("cannot read " + source + ": not a regular file");

    const fs::path name = fs::path(source).filename();
    const std::string ext = name.extension().string();
    std::string path = dir_ + "/" + name.stem().string() + ".XXXXXX" + ext;
    unique_fd out(::mkstemps(path.data(), static_cast<int>(ext.size())));
    if (!out)
        throw Failure("cannot make a copy of " + source + " in " + dir_ + ": " + errno_text(errno));
    bool ok = ::fchmod(out.get(), 0644) == 0;
    char buf[65536];
    while (ok) {
        const ssize_t n = ::read(in.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        ok = write_all(out.get(), buf, static_cast<size_t>(n));
    }
    const int error = errno;
    if (!ok || ::close(out.release()) != 0) {
        ::unlink(path.c_str());
        throw Failure("cannot copy " + source + " to " + path + ": " + errno_text(error));
    }
    return path;
}

// --- the script menu -----------------------------------------------------------

std::string parse_code(const std::string& command, const std::string& text) {
    std::string code = text;
    if (!code.empty() && code.back() == '#')
        code.pop_back();
    if (code.empty())
        throw UsageError(command, "empty script code in '" + text + "'");
    for (char c : code)
        if (!std::isdigit(static_cast<unsigned char>(c)) && c != '*' && (c < 'A' || c > 'D'))
            throw UsageError(command, "script code '" + text +
                                          "' may hold only the keys 0-9, * and A-D, and # "
                                          "only at its end");
    return code;
}

std::vector<std::string> parse_codes(const std::string& command, const std::string& text) {
    std::vector<std::string> out;
    for (const auto& entry : split_list(text))
        out.push_back(parse_code(command, entry));
    return out;
}

std::vector<std::string> ScriptMenu::silent_codes() const {
    std::vector<std::string> out;
    for (const auto& code : codes)
        if (!answers.count(code))
            out.push_back(code);
    return out;
}

std::vector<std::string> ScriptMenu::audio_codes() const {
    std::vector<std::string> out;
    for (const auto& code : codes)
        if (answers.count(code))
            out.push_back(code);
    return out;
}

ScriptMenu parse_script_menu(const Invocation& inv) {
    const std::string& command = inv.command;
    ScriptMenu menu;
    const auto add = [&](const std::string& code, const std::string& file) {
        if (std::find(menu.codes.begin(), menu.codes.end(), code) == menu.codes.end())
            menu.codes.push_back(code);
        if (!file.empty())
            menu.answers.emplace(code, absolute(file));  // the first file given stays
    };

    std::vector<std::pair<std::string, std::string>> explicit_answers;
    if (inv.options.count("--answer"))
        for (const auto& pair : inv.options.at("--answer")) {
            const auto eq = pair.find('=');
            if (eq == std::string::npos || eq + 1 == pair.size())
                throw UsageError(command, "expected --answer CODE=FILE, not '" + pair + "'");
            explicit_answers.emplace_back(parse_code(command, pair.substr(0, eq)),
                                          pair.substr(eq + 1));
        }
    for (const auto& [code, file] : explicit_answers)
        menu.answers.emplace(code, absolute(file));

    std::vector<std::string> codes;
    if (auto text = inv.value("--codes"))
        codes = parse_codes(command, *text);
    std::vector<std::string> responses;
    if (auto text = inv.value("--responses"))
        responses = split_list(*text);
    if (responses.size() > codes.size())
        throw UsageError(command, "--responses names " + std::to_string(responses.size()) +
                                      " files for " + std::to_string(codes.size()) + " codes");
    for (size_t i = 0; i < codes.size(); ++i)
        add(codes[i], i < responses.size() ? responses[i] : "");
    for (const auto& [code, file] : explicit_answers)
        add(code, file);

    if (auto dir = inv.value("--answers")) {
        std::vector<std::string> names;
        std::error_code ec;
        for (fs::directory_iterator it(*dir, ec), end; !ec && it != end; it.increment(ec))
            if (it->path().extension() == ".raw")
                names.push_back(it->path().filename().string());
        if (ec)
            throw Failure("cannot list " + *dir + ": " + ec.message());
        std::sort(names.begin(), names.end());
        for (const auto& name : names) {
            const std::string stem = fs::path(name).stem().string();
            try {
                add(parse_code(command, stem), *dir + "/" + name);
            } catch (const UsageError&) {
                // Not named like a code: some other file.
            }
        }
    }

    if (menu.codes.empty())
        throw UsageError(command, "the menu has no codes: give --codes, --answer or --answers");
    if (auto prepick = inv.value("--prepick")) {
        menu.prepick = parse_code(command, *prepick);
        if (std::find(menu.codes.begin(), menu.codes.end(), menu.prepick) == menu.codes.end())
            throw UsageError(command,
                             "the pre-picked code " + menu.prepick + " is not on the menu");
    }
    return menu;
}

// --- MessageFolder ------------------------------------------------------------------

std::optional<MessageFolder::Stream> MessageFolder::stream_named(const std::string& filter) {
    if (filter == kal_VMCheck_Filter_Unheard)
        return Stream::Unheard;
    if (filter == kal_VMCheck_Filter_Recent)
        return Stream::Recent;
    if (filter == kal_VMCheck_Filter_CallLog)
        return Stream::CallLog;
    return std::nullopt;
}

const char* MessageFolder::stream_title(Stream stream) {
    switch (stream) {
        case Stream::Unheard:
            return "unheard";
        case Stream::Recent:
            return "saved";
        case Stream::CallLog:
            return "call log";
    }
    return "?";
}

MessageFolder::MessageFolder(std::string dir) : dir_(absolute(dir)) {
    std::error_code ec;
    if (!fs::is_directory(dir_, ec))
        throw Failure(dir + " is not a folder of messages");
}

std::string MessageFolder::stream_dir(Stream stream) const {
    switch (stream) {
        case Stream::Unheard:
            return dir_;
        case Stream::Recent:
            return dir_ + "/saved";
        case Stream::CallLog:
            return dir_ + "/calllog";
    }
    return dir_;
}

std::vector<std::string> MessageFolder::messages(Stream stream) const {
    std::vector<std::string> out;
    std::error_code ec;
    for (fs::directory_iterator it(stream_dir(stream), ec), end; !ec && it != end;
         it.increment(ec)) {
        const std::string name = it->path().filename().string();
        std::error_code type_ec;
        if (name.empty() || name[0] == '.' || !it->is_regular_file(type_ec))
            continue;
        out.push_back(it->path().string());
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::string MessageFolder::dispose(const std::string& disposition) {
    if (!presented_)
        return "";
    const std::string path = *presented_;
    presented_.reset();
    const std::string name = fs::path(path).filename().string();
    std::error_code ec;
    if (!fs::exists(path, ec))
        return name + " is gone already";

    if (disposition == kal_VMCheck_Disposition_Delete) {
        if (::unlink(path.c_str()) != 0)
            throw Failure("cannot delete " + path + ": " + errno_text(errno));
        return name + " deleted";
    }
    if (disposition == kal_VMCheck_Disposition_Save && stream_ == Stream::Unheard) {
        const std::string saved = stream_dir(Stream::Recent);
        if (::mkdir(saved.c_str(), 0755) != 0 && errno != EEXIST)
            throw Failure("cannot make " + saved + ": " + errno_text(errno));
        // A saved message of the same name stays: the newcomer takes a number.
        const fs::path p(name);
        std::string target = saved + "/" + name;
        for (int n = 2; fs::exists(target, ec); ++n)
            target =
                saved + "/" + p.stem().string() + "-" + std::to_string(n) + p.extension().string();
        if (::rename(path.c_str(), target.c_str()) != 0)
            throw Failure("cannot move " + path + " to " + target + ": " + errno_text(errno));
        return name + " saved to " + target;
    }
    if (disposition == kal_VMCheck_Disposition_Save)
        return name + " kept";
    return name + " left as it was";
}

std::optional<MessageFolder::Message> MessageFolder::next(Stream stream) {
    presented_.reset();
    if (!walking_ || stream != stream_) {
        walking_ = true;
        stream_ = stream;
        walk_ = messages(stream);
        at_ = 0;
    }
    std::error_code ec;
    while (at_ < walk_.size()) {
        const std::string& path = walk_[at_++];
        if (fs::exists(path, ec)) {
            presented_ = path;
            return Message{path, at_, walk_.size()};
        }
    }
    walking_ = false;
    return std::nullopt;
}

void MessageFolder::restart() {
    walking_ = false;
    presented_.reset();
}

}  // namespace kal::kalctl
