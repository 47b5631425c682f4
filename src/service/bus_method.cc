#include "service/bus_method.h"

#include "service/bus_values.h"

namespace kal::bus {

std::string message_sender(sd_bus_message* m) {
    const char* sender = sd_bus_message_get_sender(m);
    return sender ? sender : "";
}

int Arg<std::string>::read(sd_bus_message* m, std::string& out) {
    const char* s = nullptr;
    int r = sd_bus_message_read_basic(m, 's', &s);
    if (r > 0)
        out = s;
    return r;
}

int Arg<std::string>::append(sd_bus_message* m, const std::string& v) {
    return append_text(m, v);
}

int Arg<OptString>::read(sd_bus_message* m, OptString& out) {
    std::string s;
    int r = Arg<std::string>::read(m, s);
    if (r > 0 && !s.empty())
        out = std::move(s);
    return r;
}

int Arg<int32_t>::read(sd_bus_message* m, int32_t& out) {
    return sd_bus_message_read_basic(m, 'i', &out);
}

int Arg<int32_t>::append(sd_bus_message* m, int32_t v) {
    return sd_bus_message_append_basic(m, 'i', &v);
}

int Arg<uint32_t>::read(sd_bus_message* m, uint32_t& out) {
    return sd_bus_message_read_basic(m, 'u', &out);
}

int Arg<bool>::read(sd_bus_message* m, bool& out) {
    int b = 0;
    int r = sd_bus_message_read_basic(m, 'b', &b);
    out = b != 0;
    return r;
}

int Arg<StringList>::read(sd_bus_message* m, StringList& out) {
    int r = sd_bus_message_enter_container(m, 'a', "s");
    if (r < 0)
        return r;
    const char* s = nullptr;
    while ((r = sd_bus_message_read_basic(m, 's', &s)) > 0)
        out.emplace_back(s);
    return r < 0 ? r : sd_bus_message_exit_container(m);
}

int Arg<StringList>::append(sd_bus_message* m, const StringList& v) {
    int r = sd_bus_message_open_container(m, 'a', "s");
    for (size_t i = 0; r >= 0 && i < v.size(); ++i)
        r = append_text(m, v[i]);
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int Arg<ValueDict>::read(sd_bus_message* m, ValueDict& out) {
    return read_dict(m, out);
}

int Arg<std::optional<ValueDict>>::append(sd_bus_message* m, const std::optional<ValueDict>& v) {
    return append_dict(m, v.value_or(ValueDict{}));
}

int Arg<Value>::read(sd_bus_message* m, Value& out) {
    return read_variant(m, out);
}

int Arg<ObjectPath>::read(sd_bus_message* m, ObjectPath& out) {
    const char* s = nullptr;
    int r = sd_bus_message_read_basic(m, 'o', &s);
    if (r > 0)
        out.path = s;
    return r;
}

}  // namespace kal::bus
