#pragma once

// The caller-ID block a voice modem sends between the first and second ring
// once caller ID is on, one field a line:
//     DATE = 0321
//     TIME = 1405
//     NMBR = 5551234
//     NAME = JANE DOE
// with or without spaces around "=". A number or name of "P" means the
// caller withheld it (private), "O" that the exchange could not give it
// (out of area, unavailable). The block becomes the text of one caller-ID
// event: the number, a space, then the name, as clients show it.

#include <optional>
#include <string>
#include <string_view>

namespace v253 {

class CallerIdBlock {
  public:
    // Takes one line; false when it is not a caller-ID field.
    bool add_line(std::string_view line);
    bool empty() const { return !any_; }
    // The event text of what was collected, and a fresh start.
    std::string take_text();

  private:
    bool any_ = false;
    std::string date_, time_, number_, name_;
};

// Splits "KEY = value" / "KEY=value"; nullopt when the line has no "=".
struct CallerIdField {
    std::string key;
    std::string value;
};
std::optional<CallerIdField> parse_caller_id_field(std::string_view line);

// The text shown for a number or name marker: "P" private, "O" unavailable.
std::string caller_id_display(const std::string& value);

}  // namespace v253
