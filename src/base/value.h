#pragma once

// A property-list-shaped value: what notifications carry in their user-info,
// what clients send as line preferences, and what qlxconfig holds. It maps
// one to one onto D-Bus variants and onto libplist nodes.

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace kal {

struct Value;
using ValueArray = std::vector<Value>;
using ValueDict = std::map<std::string, Value>;
using Bytes = std::vector<uint8_t>;

struct Value {
    using Variant = std::variant<std::monostate, bool, int32_t, int64_t, uint32_t, uint64_t, double,
                                 std::string, Bytes, ValueArray, ValueDict>;
    Variant v;

    Value() = default;
    Value(bool b) : v(b) {}
    Value(int32_t i) : v(i) {}
    Value(int64_t i) : v(i) {}
    Value(uint32_t u) : v(u) {}
    Value(uint64_t u) : v(u) {}
    Value(double d) : v(d) {}
    Value(std::string s) : v(std::move(s)) {}
    Value(const char* s) : v(std::string(s)) {}
    Value(Bytes b) : v(std::move(b)) {}
    Value(ValueArray a) : v(std::move(a)) {}
    Value(ValueDict d) : v(std::move(d)) {}

    template <typename T>
    bool is() const {
        return std::holds_alternative<T>(v);
    }
    template <typename T>
    const T& as() const {
        return std::get<T>(v);
    }
    // The text of a string value, or "" for any other kind.
    const std::string& str() const;
    bool operator==(const Value& o) const { return v == o.v; }
};

// A readable rendering for logs and kalctl ("{a = 1; b = x}").
std::string describe(const Value& value);

}  // namespace kal
