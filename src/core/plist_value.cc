#include "core/plist_value.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "base/unique_fd.h"

namespace kal {

namespace {

// libplist hands out malloc'd texts and buffers.
struct MallocFree {
    void operator()(char* p) const { free(p); }
};
using MallocText = std::unique_ptr<char, MallocFree>;

Value integer_value(uint64_t raw) {
    // Written signed, read back as the same 64 bits.
    const auto v = static_cast<int64_t>(raw);
    if (v >= INT32_MIN && v <= INT32_MAX)
        return Value(static_cast<int32_t>(v));
    return Value(v);
}

struct ToPlist {
    plist_t operator()(std::monostate) const { return nullptr; }
    plist_t operator()(bool b) const { return plist_new_bool(b ? 1 : 0); }
    plist_t operator()(int32_t i) const { return plist_new_uint(static_cast<uint64_t>(i)); }
    plist_t operator()(int64_t i) const { return plist_new_uint(static_cast<uint64_t>(i)); }
    plist_t operator()(uint32_t u) const { return plist_new_uint(u); }
    plist_t operator()(uint64_t u) const { return plist_new_uint(u); }
    plist_t operator()(double d) const { return plist_new_real(d); }
    plist_t operator()(const std::string& s) const { return plist_new_string(s.c_str()); }
    plist_t operator()(const Bytes& b) const {
        return plist_new_data(reinterpret_cast<const char*>(b.data()), b.size());
    }
    plist_t operator()(const ValueArray& a) const {
        plist_t array = plist_new_array();
        for (const Value& member : a)
            if (plist_t node = plist_from_value(member))
                plist_array_append_item(array, node);
        return array;
    }
    plist_t operator()(const ValueDict& d) const {
        plist_t dict = plist_new_dict();
        for (const auto& [key, member] : d)
            if (plist_t node = plist_from_value(member))
                plist_dict_set_item(dict, key.c_str(), node);
        return dict;
    }
};

}  // namespace

std::optional<Value> value_from_plist(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return Value(b != 0);
        }
        case PLIST_UINT: {
            uint64_t u = 0;
            plist_get_uint_val(node, &u);
            return integer_value(u);
        }
        case PLIST_REAL: {
            double d = 0;
            plist_get_real_val(node, &d);
            return Value(d);
        }
        case PLIST_STRING: {
            char* raw = nullptr;
            plist_get_string_val(node, &raw);
            MallocText text(raw);
            return Value(std::string(text ? text.get() : ""));
        }
        case PLIST_DATA: {
            char* raw = nullptr;
            uint64_t length = 0;
            plist_get_data_val(node, &raw, &length);
            MallocText data(raw);
            const auto* bytes = reinterpret_cast<const uint8_t*>(data.get());
            return Value(bytes ? Bytes(bytes, bytes + length) : Bytes());
        }
        case PLIST_ARRAY: {
            ValueArray array;
            const uint32_t n = plist_array_get_size(node);
            for (uint32_t i = 0; i < n; ++i)
                if (auto member = value_from_plist(plist_array_get_item(node, i)))
                    array.push_back(std::move(*member));
            return Value(std::move(array));
        }
        case PLIST_DICT: {
            ValueDict dict;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            for (;;) {
                char* raw_key = nullptr;
                plist_t member = nullptr;
                plist_dict_next_item(node, it, &raw_key, &member);
                MallocText key(raw_key);
                if (!member)
                    break;
                if (auto v = value_from_plist(member))
                    dict.insert_or_assign(key ? key.get() : "", std::move(*v));
            }
            free(it);
            return Value(std::move(dict));
        }
        default:
            return std::nullopt;
    }
}

plist_t plist_from_value(const Value& value) {
    return std::visit(ToPlist{}, value.v);
}

PlistPtr read_plist_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return nullptr;
    const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (data.empty() || data.size() > UINT32_MAX)
        return nullptr;
    plist_t root = nullptr;
    plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
    return PlistPtr(root);
}

bool write_plist_file(const std::string& path, plist_t root) {
    char* raw = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &raw, &length);
    MallocText xml(raw);
    if (!xml) {
        errno = EINVAL;
        return false;
    }

    std::string temp = path + ".XXXXXX";
    unique_fd fd(mkostemp(temp.data(), O_CLOEXEC));
    if (!fd)
        return false;
    auto fail = [&] {
        const int e = errno;
        fd.reset();
        unlink(temp.c_str());
        errno = e;
        return false;
    };
    for (uint32_t done = 0; done < length;) {
        const ssize_t n = write(fd.get(), xml.get() + done, length - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            return fail();
        }
        done += static_cast<uint32_t>(n);
    }
    if (fchmod(fd.get(), 0644) != 0 || fsync(fd.get()) != 0)
        return fail();
    if (close(fd.release()) != 0) {
        const int e = errno;
        unlink(temp.c_str());
        errno = e;
        return false;
    }
    if (rename(temp.c_str(), path.c_str()) != 0) {
        const int e = errno;
        unlink(temp.c_str());
        errno = e;
        return false;
    }
    return true;
}

}  // namespace kal
