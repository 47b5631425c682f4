#pragma once

// The error vocabulary shared by every program that talks to the daemon:
// the numbered message table, the texts meant for users, and the one kind of
// exception that crosses to a client. Nothing here knows about D-Bus, so the
// client library and kalctl use the same table and texts; the server turns a
// KALException into a com.orvane.KALException error reply.

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "base/value.h"

// Messages by error code. Most codes concern phonebook and database work the
// daemon never does; they stay so that every program agrees on the numbers.
inline constexpr int kal_error_count = 38;
extern const char* const kal_errors[kal_error_count];

// The exception's name and the user-info key that carries its code.
inline constexpr const char KALExceptionName[] = "KALException";
inline constexpr const char KALErrorKey[] = "KALErrorKey";

// Codes the daemon itself raises.
inline constexpr int kal_ErrorUnauthenticated = 16;
inline constexpr int kal_ErrorInvalidSoftwareVersion = 35;

// A named exception with a reason and a user-info dictionary. Most carry the
// name "KALException" and their code under KALErrorKey, but the accessors
// below answer for any name, so they can be asked of whatever was caught.
class KALException : public std::exception {
  public:
    KALException(std::string name, std::string reason, kal::ValueDict userInfo = {});

    const std::string& name() const noexcept { return name_; }
    const std::string& reason() const noexcept { return reason_; }
    const kal::ValueDict& userInfo() const noexcept { return userInfo_; }
    const char* what() const noexcept override { return reason_.c_str(); }

    // True when the name is "KALException"; the code is not looked at.
    bool isKALException() const;
    // The code under KALErrorKey when it is 0..38, else -1. 38 is one past
    // the table and is accepted: its message is empty.
    int kalErrorCode() const;
    // The table message for kalErrorCode(), nullopt where that is -1.
    std::optional<std::string> kalErrorString() const;

    // The user-info as logged next to the reason ("null userinfo" if empty).
    std::string userInfoDescription() const;

  private:
    std::string name_;
    std::string reason_;
    kal::ValueDict userInfo_;
};

// The table message for `code`; "" for 38 and for anything outside the table.
std::string_view kal_error_message(int code);

// Reason "#<code> <message>" or, with a detail, "#<code> <message>: <detail>";
// info gains KALErrorKey = code and keeps whatever else the caller put in it.
KALException CreateKALExceptionWithMutableUserinfo(const std::optional<std::string>& detail,
                                                   int code, kal::ValueDict info);
KALException CreateKALException(const std::optional<std::string>& detail, int code);
// Logs "Raising KALException <reason>" at DEBUG and throws.
[[noreturn]] void RaiseKALException(const std::optional<std::string>& detail, int code);

// The rebuilt exception of a com.orvane.KALException error reply, whose
// message is the reason: the code comes back from its "#<code> " prefix.
KALException KALExceptionFromReason(std::string reason);

// The text for users: a longer text for 19, 22, 29 and 30, else the message.
std::string UserPresentableDescriptionForError(int code);
// The text for users of a response code. Every code without its own text,
// the successful variants included, gets the catch-all internal-error text.
std::string KALUserPresentableTextForResponse(std::string_view responseCode);
