#include "service/bus_values.h"

#include <cerrno>
#include <cstdint>

#include "service/vocabulary.h"

namespace kal::bus {

namespace {

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
            r = sd_bus_message_append_basic(m, 's', key.c_str());
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
        int operator()(std::monostate) const { return sd_bus_message_append_basic(m, 's', ""); }
        int operator()(bool b) const {
            int i = b ? 1 : 0;
            return sd_bus_message_append_basic(m, 'b', &i);
        }
        int operator()(int32_t i) const { return sd_bus_message_append_basic(m, 'i', &i); }
        int operator()(int64_t i) const { return sd_bus_message_append_basic(m, 'x', &i); }
        int operator()(uint32_t u) const { return sd_bus_message_append_basic(m, 'u', &u); }
        int operator()(uint64_t u) const { return sd_bus_message_append_basic(m, 't', &u); }
        int operator()(double d) const { return sd_bus_message_append_basic(m, 'd', &d); }
        int operator()(const std::string& s) const {
            return sd_bus_message_append_basic(m, 's', s.c_str());
        }
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
