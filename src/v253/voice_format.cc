#include "v253/voice_format.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "v253/text.h"

namespace v253 {

namespace {

// Splits at top-level commas: "(7200,8000)" stays one field; quotes keep
// their commas too.
std::vector<std::string> split_fields(const std::string& s) {
    std::vector<std::string> out(1);
    int depth = 0;
    bool quoted = false;
    for (char c : s) {
        if (c == '"')
            quoted = !quoted;
        else if (!quoted && c == '(')
            ++depth;
        else if (!quoted && c == ')')
            depth = std::max(0, depth - 1);
        if (c == ',' && depth == 0 && !quoted) {
            out.emplace_back();
            continue;
        }
        out.back() += c;
    }
    for (auto& f : out)
        f = std::string(trim(f));
    return out;
}

std::optional<int> to_int(const std::string& s) {
    if (s.empty() || !std::all_of(s.begin(), s.end(),
                                  [](char c) { return isdigit(static_cast<unsigned char>(c)); }))
        return std::nullopt;
    if (s.size() > 9)
        return std::nullopt;
    return atoi(s.c_str());
}

std::string strip_prefix(const std::string& line, const std::string& prefix) {
    std::string s = line;
    if (s.rfind(prefix, 0) == 0)
        s = s.substr(prefix.size());
    return s;
}

std::string unquote(const std::string& s) {
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"')
        return s.substr(1, s.size() - 2);
    return s;
}

// "8000", "(7200,8000,11025)", "(7200-11025)".
std::vector<int> parse_rates(std::string s) {
    std::vector<int> out;
    if (!s.empty() && s.front() == '(' && s.back() == ')')
        s = s.substr(1, s.size() - 2);
    for (const std::string& part : split_fields(s)) {
        const size_t dash = part.find('-');
        if (dash != std::string::npos) {
            auto lo = to_int(part.substr(0, dash)), hi = to_int(part.substr(dash + 1));
            if (lo && hi && *lo <= 8000 && 8000 <= *hi)
                out.push_back(8000);  // a range: only whether it holds ours matters
            continue;
        }
        if (auto v = to_int(part))
            out.push_back(*v);
    }
    return out;
}

std::string upper(std::string s) {
    for (auto& c : s)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return s;
}

bool names_unsigned_linear(const std::string& name) {
    const std::string n = upper(name);
    if (n.find("SIGNED") != std::string::npos && n.find("UNSIGNED") == std::string::npos)
        return false;  // signed PCM is not ours
    return n == "UNSIGNED PCM" || n == "8-BIT LINEAR" || n == "8 BIT LINEAR" || n == "LINEAR" ||
           n == "8-BIT UNSIGNED LINEAR" || n == "UNSIGNED LINEAR";
}

}  // namespace

std::optional<VoiceMethod> parse_voice_method(const std::string& line) {
    auto f = split_fields(strip_prefix(line, "+VSM:"));
    if (f.size() < 5)
        return std::nullopt;
    auto number = to_int(f[0]);
    auto bits = to_int(f[2]);
    if (!number || !bits || f[1].empty() || f[1].front() != '"')
        return std::nullopt;
    VoiceMethod m;
    m.number = *number;
    m.name = unquote(f[1]);
    m.bits = *bits;
    m.rates = parse_rates(f[4]);
    return m;
}

std::vector<int> choose_voice_methods(const std::vector<std::string>& vsm_answer) {
    std::vector<int> out, listed;
    for (const auto& line : vsm_answer) {
        auto m = parse_voice_method(line);
        if (!m)
            continue;
        listed.push_back(m->number);
        if (m->bits == 8 && names_unsigned_linear(m->name) &&
            std::find(m->rates.begin(), m->rates.end(), 8000) != m->rates.end())
            out.push_back(m->number);
    }
    // A known number the modem listed under another name means something
    // else on this modem.
    for (int known : kKnownLinearMethods)
        if (std::find(listed.begin(), listed.end(), known) == listed.end())
            out.push_back(known);
    return out;
}

std::optional<int> find_line_selection(const std::vector<std::string>& vls_answer,
                                       const std::string& label) {
    for (const auto& line : vls_answer) {
        auto f = split_fields(strip_prefix(line, "+VLS:"));
        if (f.size() < 2)
            continue;
        auto number = to_int(f[0]);
        if (number && unquote(f[1]) == label)
            return *number;
    }
    return std::nullopt;
}

}  // namespace v253
