#include "core/qlxconfig.h"

#include <plist/plist.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

int8_t qlx_enabled_silence_detection = 0;

namespace {

using PlistPtr = std::unique_ptr<void, decltype(&plist_free)>;

// The integer value of a property as the configuration has always read it:
// the leading integer of a string ("12abc" is 12, "abc" is 0), a number
// truncated, a boolean as 0 or 1; anything else 0.
long long int_value(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_UINT: {
            uint64_t v = 0;
            plist_get_uint_val(node, &v);
            return static_cast<long long>(v);
        }
        case PLIST_REAL: {
            double v = 0;
            plist_get_real_val(node, &v);
            return static_cast<long long>(v);
        }
        case PLIST_BOOLEAN: {
            uint8_t v = 0;
            plist_get_bool_val(node, &v);
            return v ? 1 : 0;
        }
        case PLIST_STRING: {
            char* text = nullptr;
            plist_get_string_val(node, &text);
            long long v = text ? std::strtoll(text, nullptr, 10) : 0;
            free(text);
            return v;
        }
        default:
            return 0;
    }
}

}  // namespace

bool read_silence_detection(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (data.empty())
        return false;
    plist_t root = nullptr;
    plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
    PlistPtr owner(root, plist_free);
    if (!root || plist_get_node_type(root) != PLIST_DICT)
        return false;
    plist_t value = plist_dict_get_item(root, kSilenceDetectionKey);
    return value && int_value(value) != 0;
}
