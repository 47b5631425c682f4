#include "service/kal_errors.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>

#include "log/kallog.h"
#include "service/vocabulary.h"

using namespace kal;

// The last entry is one text of three phrases run together; other programs
// index the table by these numbers, so it stays exactly so.
// Sized by its entries: a missing or extra one no longer matches the
// declaration and fails to compile.
const char* const kal_errors[] = {
    "OK",
    "Empty name entered into phonebook",
    "Domestic number format chosen, but missing area code or number",
    "Exact number format chosen, but no number entered",
    "Distributed Objects connection failure during handshake",
    "Attempt to call database access function with no database connection",
    "Attempt to call database access function but commands are pending",
    "Attempt to call database access function but transaction is open",
    "Error while executing SQL statement",
    "Error beginning database transaction",
    "Error committing database transaction",
    "Sounds like not entered into phonebook",
    "Attempt to re-insert notes",
    "Invalid type in Call Log record",
    "Unable to get list of running programs",
    "Empty name entered into dialing rule/calling card",
    "Unauthenticated request",
    "Invalid Dialing Request",
    "Invalid Table Name Specified",
    "Duplicate name entered into phonebook",
    "No zone for preferences",
    "No username for preferences",
    "Attempt to enter 911 into the phonebook",
    "Failed to fetch required line record from database",
    "No line specified for call log entry",
    "No start time specified for call log entry",
    "No name specified for mailbox",
    "No digit-to-dial specified for mailbox",
    "Database failed to run count operation",
    "Database failed to run SQL wakeup statement (returned 0 rows)",
    "Sounds-like field contains non-ASCII characters",
    "Out of memory",
    "Initialization failure",
    "No path specified for answer script",
    "No digit code specified for answer script",
    "Invalid software version",
    "No value or default for preference",
    "Cache building failed to find source rowIncomplete user recordNOT AN ERROR INSERT ABOVE ME",
};

namespace {

// The accessors accept one code past the table.
constexpr int kHighestAcceptedCode = kal_error_count;

// NSNumber-style intValue of a user-info entry: numbers convert, a string is
// read as a decimal prefix, anything else is 0.
int int_value(const Value& v) {
    struct Visitor {
        int operator()(std::monostate) const { return 0; }
        int operator()(bool b) const { return b ? 1 : 0; }
        int operator()(int32_t i) const { return i; }
        int operator()(int64_t i) const { return static_cast<int>(i); }
        int operator()(uint32_t u) const { return static_cast<int>(u); }
        int operator()(uint64_t u) const { return static_cast<int>(u); }
        int operator()(double d) const { return static_cast<int>(d); }
        int operator()(const std::string& s) const { return std::atoi(s.c_str()); }
        int operator()(const Bytes&) const { return 0; }
        int operator()(const ValueArray&) const { return 0; }
        int operator()(const ValueDict&) const { return 0; }
    };
    return std::visit(Visitor{}, v.v);
}

}  // namespace

KALException::KALException(std::string name, std::string reason, ValueDict userInfo)
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(std::move(userInfo)) {}

bool KALException::isKALException() const {
    return name_ == KALExceptionName;
}

int KALException::kalErrorCode() const {
    auto it = userInfo_.find(KALErrorKey);
    if (it == userInfo_.end())
        return -1;
    const int code = int_value(it->second);
    // Compared unsigned, so negative codes fall out too.
    if (static_cast<unsigned>(code) > static_cast<unsigned>(kHighestAcceptedCode))
        return -1;
    return code;
}

std::optional<std::string> KALException::kalErrorString() const {
    const int code = kalErrorCode();
    if (code < 0)
        return std::nullopt;
    return std::string(kal_error_message(code));
}

std::string KALException::userInfoDescription() const {
    return userInfo_.empty() ? "null userinfo" : describe(Value(userInfo_));
}

std::string_view kal_error_message(int code) {
    if (code < 0 || code >= kal_error_count)
        return {};
    return kal_errors[code];
}

KALException CreateKALExceptionWithMutableUserinfo(const std::optional<std::string>& detail,
                                                   int code, ValueDict info) {
    std::string reason = "#" + std::to_string(code) + " " + std::string(kal_error_message(code));
    if (detail)
        reason += ": " + *detail;
    info[KALErrorKey] = int32_t{code};
    return KALException(KALExceptionName, std::move(reason), std::move(info));
}

KALException CreateKALException(const std::optional<std::string>& detail, int code) {
    return CreateKALExceptionWithMutableUserinfo(detail, code, {});
}

void RaiseKALException(const std::optional<std::string>& detail, int code) {
    KALException e = CreateKALException(detail, code);
    kallog(KAL_DEBUG, "Raising KALException %s", e.reason().c_str());
    throw e;
}

KALException KALExceptionFromReason(std::string reason) {
    ValueDict info;
    if (reason.size() > 1 && reason[0] == '#') {
        int code = 0;
        const char* first = reason.data() + 1;
        const char* last = reason.data() + reason.size();
        auto [end, ec] = std::from_chars(first, last, code);
        if (ec == std::errc() && end != first && (end == last || *end == ' '))
            info[KALErrorKey] = int32_t{code};
    }
    return KALException(KALExceptionName, std::move(reason), std::move(info));
}

std::string UserPresentableDescriptionForError(int code) {
    switch (code) {
        case 19:
            return "There is another entry in the phonebook with this name. Please change the name "
                   "of this entry before saving.\n\nTip: Some users find it convenient to enter a "
                   "word (like Home or Work) after the name of a person with more than one "
                   "telephone number.";
        case 22:
            return "Because Orvane is not designed to operate in life-safety situations, entering "
                   "the 911 emergency number is not permitted.\n\nPlease change the number of this "
                   "entry before saving.";
        case 29:
            return "Orvane failed to correctly communicate with the database.";
        case 30:
            return "The sounds-like field contains non-English letters or symbols, and so cannot "
                   "be "
                   "saved.  Apple's speech systems only work in English.  Please enter only "
                   "English text into the sounds-like field.";
        default:
            return std::string(kal_error_message(code));
    }
}

std::string KALUserPresentableTextForResponse(std::string_view code) {
    struct Entry {
        std::string_view code;
        const char* text;
    };
    static constexpr Entry kTexts[] = {
        {kal_ResponseCode_OK, "OK"},
        {kal_ResponseCode_ERR_NoResource, "No USB Telephone Adapter is currently connected."},
        {kal_ResponseCode_ERR_ResourceBusy, "The requested Telephone Adapter is currently busy."},
        {kal_ResponseCode_ERR_UnimplementedRequest,
         "INTERNAL ERROR: The current operation is not yet implemented. Please report this "
         "error."},
        {kal_ResponseCode_ERR_MalformedRequest,
         "INTERNAL ERROR: The current request is malformed. Please report this error."},
        {kal_ResponseCode_ERR_InternalError, "INTERNAL ERROR: Please report this error."},
        {kal_ResponseCode_ERR_InvalidFile, "Call Recording audio file missing."},
    };
    for (const auto& e : kTexts)
        if (e.code == code)
            return e.text;
    return "INTERNAL ERROR: No error text available. Please report this error.";
}
