// Node requests: starting a call-handling node on a line, feeding a running
// one with what it asked for, and stopping a recording.

#include "service/requests.h"
#include "service/vocabulary.h"

namespace kal::requests {

std::string beginCRNodeForResource(const Caller&, const OptString&, const OptString&,
                                   const OptString&, const OptString&, const OptString&, uint32_t) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string beginVMNodeForResource(const Caller&, const OptString&, const OptString&,
                                   const OptString&, const OptString&, const StringList&, int32_t,
                                   int32_t, int32_t, const OptString&) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string beginVMCheckNodeForResource(const Caller&, const OptString&, const OptString&,
                                        const OptString&, const OptString&, int32_t) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string restartVMCheckNodeForResource(const Caller&, const OptString&, const OptString&,
                                          const OptString&) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string nextVMCheckMessage(const Caller&, const OptString&, const OptString&,
                               const OptString&) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string scriptCompletedForResource(const Caller&, const OptString&, const OptString&, int32_t,
                                       const OptString&) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string stopCRNodeForResource(const Caller&, const OptString&) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

std::string startScriptNodeForResource(const Caller&, const OptString&, const OptString&,
                                       const StringList&, const StringList&, const OptString&) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

}  // namespace kal::requests
