// Node requests: starting a call-handling node on a line, feeding a running
// one with what it asked for, and stopping a recording.
//
// Starting answers OK once the node exists and has begun: whether the line
// exists or is free is the node's to find out, and it tells the client in
// its completion report. Feeding finds the node on the line by its type;
// when there is none, the audio file the client made for it is deleted
// here, so that the client's temporary files do not pile up. Main thread.

#include <exception>
#include <new>

#include "base/fatal.h"
#include "base/value.h"
#include "log/kallog.h"
#include "nodes/cr_node.h"
#include "nodes/vm_node.h"
#include "service/kal_errors.h"
#include "service/requests.h"
#include "service/vocabulary.h"

namespace kal::requests {
namespace {

const char* or_nil(const OptString& s) {
    return s ? s->c_str() : "nil";
}

std::string describe_list(const StringList& list) {
    return describe(Value(ValueArray(list.begin(), list.end())));
}

// The node's own copy of a client's list. Running out of memory here ends
// the daemon, as any allocation failure of a record does.
StringList copy_choices(const StringList& list, const char* record) {
    try {
        return list;
    } catch (const std::bad_alloc&) {
        kallog(KAL_ERR, "Malloc of %s record failed. Quitting.", record);
        dm_exit(1);
    }
}

// Runs a request's body; an exception is logged under `name` and answered
// with an internal error.
template <typename Body>
std::string guarded(const char* name, Body&& body) {
    try {
        return body();
    } catch (const KALException& e) {
        kallog(KAL_ERR, "Exception occurred in %s: %s userInfo: %s", name, e.reason().c_str(),
               e.userInfoDescription().c_str());
    } catch (const std::exception& e) {
        kallog(KAL_ERR, "Exception occurred in %s: %s userInfo: %s", name, e.what(),
               "null userinfo");
    }
    return kal_ResponseCode_ERR_InternalError;
}

}  // namespace

std::string beginCRNodeForResource(const Caller&, const OptString& serial, const OptString& token,
                                   const OptString& recFile, const OptString& prePlay,
                                   const OptString& postPlay, uint32_t flags) {
    return guarded("beginCRNode...", [&]() -> std::string {
        if (!serial || !token || !recFile)
            return kal_ResponseCode_ERR_MalformedRequest;
        kallog(KAL_DEBUG,
               "beginCRNodeForResource:%s token:%s recFile:%s prePlay:%s postPlay:%s flags: %d "
               "called",
               serial->c_str(), token->c_str(), recFile->c_str(), or_nil(prePlay), or_nil(postPlay),
               static_cast<int>(flags));
        if (!CRNode::beginForResource(*serial, *token, *recFile, prePlay, postPlay, flags))
            return kal_ResponseCode_ERR_InternalError;
        return kal_ResponseCode_OK;
    });
}

std::string beginVMNodeForResource(const Caller&, const OptString& serial, const OptString& token,
                                   const OptString& ogm, const OptString& icm,
                                   const StringList& choices, int32_t maxMessageLength,
                                   int32_t postOGMPause, int32_t special,
                                   const OptString& firstCalling) {
    return guarded("beginVMNode...", [&]() -> std::string {
        if (!serial || !token || (!ogm && !icm))
            return kal_ResponseCode_ERR_MalformedRequest;
        kallog(KAL_DEBUG,
               "beginVMNodeForResource:%s token:%s ogm:%s icm:%s choices:%s maxlength:%d "
               "postOGMpause:%d special:%d firstCalling:%s called",
               serial->c_str(), token->c_str(), or_nil(ogm), or_nil(icm),
               describe_list(choices).c_str(), maxMessageLength, postOGMPause, special,
               or_nil(firstCalling));
        if (!VMNode::beginForResource(*serial, *token, ogm, icm, copy_choices(choices, "choices"),
                                      maxMessageLength, postOGMPause, special, firstCalling))
            return kal_ResponseCode_ERR_InternalError;
        return kal_ResponseCode_OK;
    });
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

std::string stopCRNodeForResource(const Caller&, const OptString& serial) {
    return guarded("stopCRNodeForResource...", [&]() -> std::string {
        if (!serial)
            return kal_ResponseCode_ERR_MalformedRequest;
        kallog(KAL_DEBUG, "stopCRNodeForResource:%s called", serial->c_str());
        if (CRNode::stopForResource(*serial))
            return kal_ResponseCode_OK;
        kallog(KAL_DEBUG, "No such node, or node no longer CR node");
        return kal_ResponseCode_ERR_NoResource;
    });
}

std::string startScriptNodeForResource(const Caller&, const OptString&, const OptString&,
                                       const StringList&, const StringList&, const OptString&) {
    return kal_ResponseCode_ERR_UnimplementedRequest;
}

}  // namespace kal::requests
