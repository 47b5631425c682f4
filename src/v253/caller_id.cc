#include "v253/caller_id.h"

#include "v253/text.h"

namespace v253 {

std::optional<CallerIdField> parse_caller_id_field(std::string_view line) {
    const size_t eq = line.find('=');
    if (eq == std::string_view::npos)
        return std::nullopt;
    CallerIdField f{std::string(trim(line.substr(0, eq))), std::string(trim(line.substr(eq + 1)))};
    if (f.key.empty())
        return std::nullopt;
    return f;
}

std::string caller_id_display(const std::string& value) {
    if (value == "P")
        return "PRIVATE";
    if (value == "O")
        return "UNAVAILABLE";
    return value;
}

bool CallerIdBlock::add_line(std::string_view line) {
    auto f = parse_caller_id_field(line);
    if (!f)
        return false;
    if (f->key == "DATE")
        date_ = f->value;
    else if (f->key == "TIME")
        time_ = f->value;
    else if (f->key == "NMBR")
        number_ = f->value;
    else if (f->key == "NAME")
        name_ = f->value;
    else if (f->key != "MESG" && f->key != "DDN_NMBR")
        return false;  // not one of the block's fields (an AT answer, say)
    any_ = true;
    return true;
}

std::string CallerIdBlock::take_text() {
    std::string number = caller_id_display(number_);
    std::string name = caller_id_display(name_);
    std::string text = number;
    // A withheld caller usually withholds both; say it once.
    if (!name.empty() && name != number)
        text += (text.empty() ? "" : " ") + name;
    *this = CallerIdBlock();
    return text;
}

}  // namespace v253
