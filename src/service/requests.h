#pragma once

// The requests clients make of the daemon, one function per method of
// com.orvane.KALActionRequesting that the server itself does not answer.
// They run on the main thread, one at a time, and only for registered
// connections: the server has read and checked the arguments against the
// contract (data/dbus/com.orvane.devicemaster.xml) and sends the returned
// value as the reply.
//
// Conventions, the contract's:
// - a text argument arrives as std::nullopt when the client sent "" (nil);
// - an array or dictionary arrives empty for nil;
// - a returned std::string is a response code (service/vocabulary.h);
// - throwing KALException (RaiseKALException, service/kal_errors.h) answers
//   the client with the error com.orvane.KALException whose message is the
//   reason; any other exception escaping a request is a bug: it is logged
//   and answered with org.freedesktop.DBus.Error.Failed. The requests' own
//   guards catch what they expect and answer kal_ResponseCode_ERR_InternalError.
// - `caller` names the calling connection (its unique bus name); most
//   requests do not need it.
//
// Line and call requests live in line_requests.cc, node requests in
// node_requests.cc.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/value.h"

namespace kal {

// Who is asking.
struct Caller {
    std::string sender;  // unique bus name of the calling connection, ":1.42"
};

// An object path argument ("o"); "/" stands for nil.
struct ObjectPath {
    std::string path;
    bool isNil() const { return path.empty() || path == "/"; }
};

using OptString = std::optional<std::string>;
using StringList = std::vector<std::string>;

namespace requests {

// Line and call requests (line_requests.cc).
StringList resources(const Caller& caller);
StringList enhancedResources(const Caller& caller);
int32_t deviceTypeForResource(const Caller& caller, const OptString& serial);
std::string dial(const Caller& caller, const OptString& digits, const OptString& serial,
                 const OptString& callbackToken, bool waitingForPickup);
std::string cancelDialWithCallbackToken(const Caller& caller, const OptString& token);
std::string placeCallOnResource(const Caller& caller, const OptString& serial,
                                const OptString& number, const OptString& token);
std::string hangUpResource(const Caller& caller, const OptString& serial, const OptString& token);
std::string performTRVOnResource(const Caller& caller, const OptString& serial,
                                 const OptString& reason, int32_t vlsMode);
void fullResourceRescan(const Caller& caller);
// An empty dictionary is nil: nothing is written.
void setLinePreferences(const Caller& caller, const ValueDict& preferences);
// nullopt when the file cannot be read; the client then gets an empty a{sv}.
std::optional<ValueDict> linePreferences(const Caller& caller);
// Broadcasts through KALSpokesman::redistributeNotification (service/spokesman.h).
void setSystemWideDebugLevel(const Caller& caller, int32_t level, bool writeToFile);

// Node requests (node_requests.cc).
std::string beginCRNodeForResource(const Caller& caller, const OptString& serial,
                                   const OptString& token, const OptString& recFile,
                                   const OptString& prePlay, const OptString& postPlay,
                                   uint32_t flags);
std::string beginVMNodeForResource(const Caller& caller, const OptString& serial,
                                   const OptString& token, const OptString& ogm,
                                   const OptString& icm, const StringList& choices,
                                   int32_t maxMessageLength, int32_t postOGMPause, int32_t special,
                                   const OptString& firstCalling);
std::string beginVMCheckNodeForResource(const Caller& caller, const OptString& serial,
                                        const OptString& token, const OptString& initialGreeting,
                                        const OptString& interMessageGreeting, int32_t special);
std::string restartVMCheckNodeForResource(const Caller& caller, const OptString& serial,
                                          const OptString& token, const OptString& initialGreeting);
std::string nextVMCheckMessage(const Caller& caller, const OptString& serial,
                               const OptString& token, const OptString& audio);
std::string scriptCompletedForResource(const Caller& caller, const OptString& serial,
                                       const OptString& token, int32_t sequenceNumber,
                                       const OptString& responseAudio);
std::string stopCRNodeForResource(const Caller& caller, const OptString& serial);
std::string startScriptNodeForResource(const Caller& caller, const OptString& serial,
                                       const OptString& token, const StringList& choices,
                                       const StringList& responseChoices,
                                       const OptString& prepicking);

}  // namespace requests
}  // namespace kal
