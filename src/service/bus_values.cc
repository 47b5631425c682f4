#include "service/bus_values.h"

#include <cerrno>
#include <cstdint>

#include "service/vocabulary.h"

namespace kal::bus {

namespace {

// The length of the valid UTF-8 sequence starting at bytes[at], or 0. Valid
// as sd-bus reads it: shortest form only, no UTF-16 surrogates, nothing past
// U+10FFFF, and none of the noncharacters (U+FDD0..U+FDEF, U+xxFFFE/F).
size_t utf8_sequence(std::string_view bytes, size_t at) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned char lead = byte(at);
    if (lead < 0x80)
        return lead ? 1 : 0;
    size_t length;
    char32_t c;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        c = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        c = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        c = lead & 0x07;
    } else {
        return 0;
    }
    if (bytes.size() - at < length)
        return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80)
            return 0;
        c = (c << 6) | (byte(at + i) & 0x3F);
    }
    static constexpr char32_t kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (c < kShortest[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
        return 0;
    if ((c >= 0xFDD0 && c <= 0xFDEF) || (c & 0xFFFE) == 0xFFFE)
        return 0;
    return length;
}

int append_value(sd_bus_message* m, const Value& value);

int append_array(sd_bus_message* m, const ValueArray& array) {
    int r = sd_bus_message_open_container(m, 'a', "v");
    for (size_t i = 0; r >= 0 && i < array.size(); ++i)
        r = append_variant(m, array[i]);
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int append_entries(sd_bus_message* m, const ValueDict& dict, bool user_info) {
    int r = sd_bus_message_open_container(m, 'a', "{sv}");
    for (auto it = dict.begin(); r >= 0 && it != dict.end(); ++it) {
        const auto& [key, value] = *it;
        r = sd_bus_message_open_container(m, 'e', "sv");
        if (r >= 0)
            r = append_text(m, key);
        if (r < 0)
            break;
        if (user_info && key == kal_EventTimeKey &&
            (value.is<int32_t>() || value.is<int64_t>() || value.is<uint32_t>())) {
            int64_t seconds = value.is<int64_t>()   ? value.as<int64_t>()
                              : value.is<int32_t>() ? value.as<int32_t>()
                                                    : value.as<uint32_t>();
            r = sd_bus_message_append(m, "v", "x", seconds);
        } else {
            r = append_variant(m, value);
        }
        if (r >= 0)
            r = sd_bus_message_close_container(m);
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int append_value(sd_bus_message* m, const Value& value) {
    struct Visitor {
        sd_bus_message* m;
        int operator()(std::monostate) const { return append_text(m, ""); }
        int operator()(bool b) const {
            int i = b ? 1 : 0;
            return sd_bus_message_append_basic(m, 'b', &i);
        }
        int operator()(int32_t i) const { return sd_bus_message_append_basic(m, 'i', &i); }
        int operator()(int64_t i) const { return sd_bus_message_append_basic(m, 'x', &i); }
        int operator()(uint32_t u) const { return sd_bus_message_append_basic(m, 'u', &u); }
        int operator()(uint64_t u) const { return sd_bus_message_append_basic(m, 't', &u); }
        int operator()(double d) const { return sd_bus_message_append_basic(m, 'd', &d); }
        int operator()(const std::string& s) const { return append_text(m, s); }
        int operator()(const Bytes& b) const {
            return sd_bus_message_append_array(m, 'y', b.data(), b.size());
        }
        int operator()(const ValueArray& a) const { return append_array(m, a); }
        int operator()(const ValueDict& d) const { return append_entries(m, d, false); }
    };
    return std::visit(Visitor{m}, value.v);
}

// A basic value of D-Bus type `type`. Unsigned 8- and 16-bit numbers widen to
// the next signed or unsigned type Value has; descriptors are not forwarded.
int read_basic(sd_bus_message* m, char type, Value& out) {
    int r;
    switch (type) {
        case 'y': {
            uint8_t v;
            if ((r = sd_bus_message_read_basic(m, type, &v)) > 0)
                out = Value(int32_t{v});
            return r;
        }
        case 'b': {
            int v;
            if ((r = sd_bus_message_read_basic(m, type, &v)) > 0)
                out = Value(v != 0);
            return r;
        }
        case 'n': {
            int16_t v;
            if ((r = sd_bus_message_read_basic(m, type, &v)) > 0)
                out = Value(int32_t{v});
            return r;
        }
        case 'q': {
            uint16_t v;
            if ((r = sd_bus_message_read_basic(m, type, &v)) > 0)
                out = Value(uint32_t{v});
            return r;
        }
        case 'i': {
            int32_t v;
            if ((r = sd_bus_message_read_basic(m, type, &v)) > 0)
                out = Value(v);
            return r;
        }
        case 'u': {
            uint32_t v;
            if ((r = sd_bus_message_read_basic(m, type, &v)) > 0)
                out = Value(v);
            return r;
        }
        case 'x': {
            int64_t v;
            if ((r = sd_bus_message_read_basic(m, type, &v)) > 0)
                out = Value(v);
            return r;
        }
        case 't': {
            uint64_t v;
            if ((r = sd_bus_message_read_basic(m, type, &v)) > 0)
                out = Value(v);
            return r;
        }
        case 'd': {
            double v;
            if ((r = sd_bus_message_read_basic(m, type, &v)) > 0)
                out = Value(v);
            return r;
        }
        case 's':
        case 'o':
        case 'g': {
            const char* v;
            if ((r = sd_bus_message_read_basic(m, type, &v)) > 0)
                out = Value(std::string(v));
            return r;
        }
        default:
            return -EINVAL;
    }
}

// The entries of an array of dict entries whose signature is `contents`
// ("{sv}", "{ia{sv}}" ...). Keys that are not strings are kept as their text.
int read_entries(sd_bus_message* m, const char* contents, ValueDict& out) {
    const std::string entry(contents + 1, std::char_traits<char>::length(contents) - 2);
    int r = sd_bus_message_enter_container(m, 'a', contents);
    if (r < 0)
        return r;
    while ((r = sd_bus_message_enter_container(m, 'e', entry.c_str())) > 0) {
        Value key, value;
        if ((r = read_basic(m, entry[0], key)) < 0 || (r = read_value(m, value)) < 0)
            return r;
        out[key.is<std::string>() ? key.str() : describe(key)] = std::move(value);
        if ((r = sd_bus_message_exit_container(m)) < 0)
            return r;
    }
    return r < 0 ? r : sd_bus_message_exit_container(m);
}

// The elements of an array or structure, in order.
int read_elements(sd_bus_message* m, char type, const char* contents, ValueArray& out) {
    int r = sd_bus_message_enter_container(m, type, contents);
    if (r < 0)
        return r;
    while ((r = sd_bus_message_at_end(m, false)) == 0) {
        Value element;
        if ((r = read_value(m, element)) < 0)
            return r;
        out.push_back(std::move(element));
    }
    return r < 0 ? r : sd_bus_message_exit_container(m);
}

}  // namespace

bool is_bus_text(std::string_view bytes) {
    for (size_t at = 0; at < bytes.size();) {
        // Plain ASCII, nearly every byte the daemon sends, needs no decoding:
        // every text of every delivery passes here.
        const auto byte = static_cast<unsigned char>(bytes[at]);
        if (byte != 0 && byte < 0x80) {
            ++at;
            continue;
        }
        const size_t length = utf8_sequence(bytes, at);
        if (length == 0)
            return false;
        at += length;
    }
    return true;
}

std::string as_bus_text(std::string_view bytes) {
    bytes = bytes.substr(0, bytes.find('\0'));
    std::string text;
    text.reserve(bytes.size());
    for (size_t at = 0; at < bytes.size();) {
        if (const size_t length = utf8_sequence(bytes, at)) {
            text.append(bytes.substr(at, length));
            at += length;
            continue;
        }
        // ISO-8859-1: the byte is the code point, below U+0100.
        const auto latin1 = static_cast<unsigned char>(bytes[at++]);
        text += static_cast<char>(0xC0 | (latin1 >> 6));
        text += static_cast<char>(0x80 | (latin1 & 0x3F));
    }
    return text;
}

int append_text(sd_bus_message* m, const std::string& text) {
    // Nearly every text is fine as it is: no copy for those.
    if (is_bus_text(text))
        return sd_bus_message_append_basic(m, 's', text.c_str());
    return sd_bus_message_append_basic(m, 's', as_bus_text(text).c_str());
}

std::string signature_of(const Value& value) {
    struct Visitor {
        std::string operator()(std::monostate) const { return "s"; }
        std::string operator()(bool) const { return "b"; }
        std::string operator()(int32_t) const { return "i"; }
        std::string operator()(int64_t) const { return "x"; }
        std::string operator()(uint32_t) const { return "u"; }
        std::string operator()(uint64_t) const { return "t"; }
        std::string operator()(double) const { return "d"; }
        std::string operator()(const std::string&) const { return "s"; }
        std::string operator()(const Bytes&) const { return "ay"; }
        std::string operator()(const ValueArray&) const { return "av"; }
        std::string operator()(const ValueDict&) const { return "a{sv}"; }
    };
    return std::visit(Visitor{}, value.v);
}

int append_variant(sd_bus_message* m, const Value& value) {
    int r = sd_bus_message_open_container(m, 'v', signature_of(value).c_str());
    if (r >= 0)
        r = append_value(m, value);
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int append_dict(sd_bus_message* m, const ValueDict& dict) {
    return append_entries(m, dict, false);
}

int append_user_info(sd_bus_message* m, const ValueDict& info) {
    return append_entries(m, info, true);
}

int read_variant(sd_bus_message* m, Value& out) {
    char type;
    const char* contents;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r <= 0)
        return r < 0 ? r : -ENXIO;
    if (type != 'v')
        return -ENXIO;
    if ((r = sd_bus_message_enter_container(m, 'v', contents)) < 0 || (r = read_value(m, out)) < 0)
        return r;
    return sd_bus_message_exit_container(m);
}

int read_dict(sd_bus_message* m, ValueDict& out) {
    return read_entries(m, "{sv}", out);
}

int read_value(sd_bus_message* m, Value& out) {
    char type;
    const char* contents;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r <= 0)
        return r < 0 ? r : -ENXIO;
    switch (type) {
        case 'v':
            return read_variant(m, out);
        case 'a':
            if (contents[0] == 'y') {
                const void* data;
                size_t size;
                if ((r = sd_bus_message_read_array(m, 'y', &data, &size)) < 0)
                    return r;
                const auto* bytes = static_cast<const uint8_t*>(data);
                out = Value(Bytes(bytes, bytes + size));
                return r;
            }
            if (contents[0] == '{') {
                ValueDict dict;
                if ((r = read_entries(m, contents, dict)) >= 0)
                    out = Value(std::move(dict));
                return r;
            }
            [[fallthrough]];
        case 'r': {
            ValueArray array;
            if ((r = read_elements(m, type, contents, array)) >= 0)
                out = Value(std::move(array));
            return r;
        }
        default:
            return read_basic(m, type, out);
    }
}

}  // namespace kal::bus
