#include "base/value.h"

#include <cstdio>

namespace kal {

const std::string& Value::str() const {
    static const std::string empty;
    const auto* s = std::get_if<std::string>(&v);
    return s ? *s : empty;
}

std::string describe(const Value& value) {
    struct Visitor {
        std::string operator()(std::monostate) const { return "(nil)"; }
        std::string operator()(bool b) const { return b ? "true" : "false"; }
        std::string operator()(int32_t i) const { return std::to_string(i); }
        std::string operator()(int64_t i) const { return std::to_string(i); }
        std::string operator()(uint32_t u) const { return std::to_string(u); }
        std::string operator()(uint64_t u) const { return std::to_string(u); }
        std::string operator()(double d) const {
            char buf[64];
            snprintf(buf, sizeof buf, "%g", d);
            return buf;
        }
        std::string operator()(const std::string& s) const { return s; }
        std::string operator()(const Bytes& b) const {
            return "<" + std::to_string(b.size()) + " bytes>";
        }
        std::string operator()(const ValueArray& a) const {
            std::string out = "(";
            for (size_t i = 0; i < a.size(); ++i)
                out += (i ? ", " : "") + describe(a[i]);
            return out + ")";
        }
        std::string operator()(const ValueDict& d) const {
            std::string out = "{";
            bool first = true;
            for (const auto& [k, val] : d) {
                out += (first ? "" : "; ") + k + " = " + describe(val);
                first = false;
            }
            return out + "}";
        }
    };
    return std::visit(Visitor{}, value.v);
}

}  // namespace kal
