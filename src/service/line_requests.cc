// Line and call requests: listing lines, dialing, placing calls, hanging up,
// timed reversals, rescans, line preferences and the system-wide log level.

#include "service/requests.h"
#include "service/vocabulary.h"

namespace kal::requests {

StringList resources(const Caller&) {
    return {};
}

StringList enhancedResources(const Caller&) {
    return {};
}

int32_t deviceTypeForResource(const Caller&, const OptString&) {
    return -1;
}

std::string dial(const Caller&, const OptString&, const OptString&, const OptString&, bool) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string cancelDialWithCallbackToken(const Caller&, const OptString&) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string placeCallOnResource(const Caller&, const OptString&, const OptString&,
                                const OptString&) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string hangUpResource(const Caller&, const OptString&, const OptString&) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string performTRVOnResource(const Caller&, const OptString&, const OptString&, int32_t) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

void fullResourceRescan(const Caller&) {}

void setLinePreferences(const Caller&, const ValueDict&) {}

std::optional<ValueDict> linePreferences(const Caller&) {
    return std::nullopt;
}

void setSystemWideDebugLevel(const Caller&, int32_t, bool) {}

}  // namespace kal::requests
