#pragma once

// Property lists: libplist nodes to and from kal::Value, and property-list
// files. The one place that speaks libplist; the configuration file
// (core/qlxconfig.h) is read and written through it.
//
// Kinds map one to one: booleans, reals, strings, data, arrays and
// dictionaries. Every integer is a 64-bit libplist integer, written signed,
// so it comes back as int32_t when it fits and as int64_t otherwise (an
// uint64_t above INT64_MAX comes back negative). Dates, UIDs and keys have no
// Value; the empty Value has no plist node.

#include <plist/plist.h>

#include <memory>
#include <optional>
#include <string>

#include "base/value.h"

namespace kal {

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
// Owns a whole node tree (plist_t is a void*).
using PlistPtr = std::unique_ptr<void, PlistFree>;

// The value of `node`; nullopt for a kind Value cannot hold. An array or a
// dictionary leaves such members out.
std::optional<Value> value_from_plist(plist_t node);
// A new node tree for `value`, owned by the caller; nullptr for the empty
// Value. An array or a dictionary leaves empty members out.
plist_t plist_from_value(const Value& value);

// The file at `path` parsed (XML or binary), or nullptr when it cannot be
// read or is not a property list.
PlistPtr read_plist_file(const std::string& path);
// Writes `root` to `path` as an XML property list, mode 0644, atomically:
// into a temporary file beside it, which is then renamed over it, so a
// reader sees the old file or the new one and never a part. On failure
// returns false with errno set, leaves the old file as it was and no
// temporary file behind.
bool write_plist_file(const std::string& path, plist_t root);

}  // namespace kal
