#include "core/qlxconfig.h"

#include <plist/plist.h>

#include <cstdlib>

#include "core/plist_value.h"

int8_t qlx_enabled_silence_detection = 0;

namespace {

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
    kal::PlistPtr root = kal::read_plist_file(path);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT)
        return false;
    plist_t value = plist_dict_get_item(root.get(), kSilenceDetectionKey);
    return value && int_value(value) != 0;
}

std::optional<kal::ValueDict> read_line_preferences(const std::string& path) {
    kal::PlistPtr root = kal::read_plist_file(path);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT)
        return std::nullopt;
    return std::get<kal::ValueDict>(std::move(kal::value_from_plist(root.get())->v));
}

bool write_line_preferences(const std::string& path, const kal::ValueDict& preferences) {
    kal::PlistPtr root(plist_new_dict());
    for (const auto& [key, value] : preferences) {
        if (plist_t node = kal::plist_from_value(value))
            plist_dict_set_item(root.get(), key.c_str(), node);
    }
    return kal::write_plist_file(path, root.get());
}
