// Node requests: starting a call-handling node on a line, feeding a running
// one with what it asked for, and stopping a recording.
//
// Starting answers OK once the node exists and has begun: whether the line
// exists or is free is the node's to find out, and it tells the client in
// its completion report. Feeding finds the node on the line by its type;
// when there is none, the audio file the client made for it is deleted
// here, so that the client's temporary files do not pile up. Main thread.

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <exception>
#include <new>

#include "base/fatal.h"
#include "base/value.h"
#include "log/kallog.h"
#include "nodes/cr_node.h"
#include "nodes/script_node.h"
#include "nodes/vm_node.h"
#include "nodes/vmcheck_node.h"
#include "service/kal_errors.h"
#include "service/request_limits.h"
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

// Deletes an audio file a client made for a node that is no longer there.
void dispose_of_client_audio(const std::string& path) {
    if (unlink(path.c_str()) == 0) {
        kallog(KAL_DEBUG, "DM removed non-needed temporary file '%s'", path.c_str());
    } else {
        const int err = errno;
        kallog(KAL_WARN, "DM could not dispose of non-needed temporary file '%s': %d-%s",
               path.c_str(), err, strerror(err));
    }
}

// The serial and token every node request names fit their records.
bool fits_line(const OptString& serial, const OptString& token) {
    return limits::fits(serial, limits::kSerial) && limits::fits(token, limits::kToken);
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
        if (!serial || !token || !recFile || !fits_line(serial, token) ||
            !limits::fits(recFile, limits::kPath) || !limits::fits(prePlay, limits::kPath) ||
            !limits::fits(postPlay, limits::kPath))
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
        if (!serial || !token || (!ogm && !icm) || !fits_line(serial, token) ||
            !limits::fits(ogm, limits::kPath) || !limits::fits(icm, limits::kPath) ||
            !limits::fits(choices, limits::kDigits) || !limits::fits(firstCalling, limits::kDigits))
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

std::string beginVMCheckNodeForResource(const Caller&, const OptString& serial,
                                        const OptString& token, const OptString& initialGreeting,
                                        const OptString& interMessageGreeting, int32_t special) {
    return guarded("beginVMCheckNode...", [&]() -> std::string {
        if (!serial || !token || !initialGreeting || !interMessageGreeting ||
            !fits_line(serial, token) || !limits::fits(initialGreeting, limits::kPath) ||
            !limits::fits(interMessageGreeting, limits::kPath))
            return kal_ResponseCode_ERR_MalformedRequest;
        kallog(KAL_DEBUG,
               "beginVMCheckNodeForResource:%s token:%s initialGreeting:%s "
               "interMessageGreeting:%s called",
               serial->c_str(), token->c_str(), initialGreeting->c_str(),
               interMessageGreeting->c_str());
        if (!VMCheckNode::beginForResource(*serial, *token, *initialGreeting, *interMessageGreeting,
                                           special))
            return kal_ResponseCode_ERR_InternalError;
        return kal_ResponseCode_OK;
    });
}

std::string restartVMCheckNodeForResource(const Caller&, const OptString& serial,
                                          const OptString& token,
                                          const OptString& initialGreeting) {
    // Its failures are logged as those of the next-message request, its twin.
    return guarded("nextVMCheckMessage...", [&]() -> std::string {
        if (!serial || !token || !initialGreeting || !fits_line(serial, token) ||
            !limits::fits(initialGreeting, limits::kPath))
            return kal_ResponseCode_ERR_MalformedRequest;
        kallog(KAL_DEBUG, "restartVMCheckNode: '%s' token: '%s' audio: '%s' called.",
               serial->c_str(), token->c_str(), initialGreeting->c_str());
        if (VMCheckNode::restartForResource(*serial, *initialGreeting))
            return kal_ResponseCode_OK;
        kallog(KAL_DEBUG, "No such node, or node no longer vmcheck node");
        dispose_of_client_audio(*initialGreeting);
        return kal_ResponseCode_ERR_NoResource;
    });
}

std::string nextVMCheckMessage(const Caller&, const OptString& serial, const OptString& token,
                               const OptString& audio) {
    return guarded("nextVMCheckMessage...", [&]() -> std::string {
        if (!serial || !token || !audio || !fits_line(serial, token) ||
            !limits::fits(audio, limits::kPath))
            return kal_ResponseCode_ERR_MalformedRequest;
        kallog(KAL_DEBUG, "nextVMCheckMessage: '%s' token: '%s' audio: '%s' called.",
               serial->c_str(), token->c_str(), audio->c_str());
        if (VMCheckNode::nextMessageForResource(*serial, *audio))
            return kal_ResponseCode_OK;
        kallog(KAL_DEBUG, "No such node, or node no longer vmcheck node");
        dispose_of_client_audio(*audio);
        return kal_ResponseCode_ERR_NoResource;
    });
}

// The sequence number is always there: the bus carries it as an integer.
std::string scriptCompletedForResource(const Caller&, const OptString& serial,
                                       const OptString& token, int32_t sequenceNumber,
                                       const OptString& responseAudio) {
    // Its failures are logged under the stop request's name, as they always were.
    return guarded("stopCRNodeForResource...", [&]() -> std::string {
        if (!serial || !token || !fits_line(serial, token) ||
            !limits::fits(responseAudio, limits::kPath))
            return kal_ResponseCode_ERR_MalformedRequest;
        kallog(KAL_DEBUG,
               "scriptCompletedForResource: '%s' token: '%s' sequence: '%d' response: '%s' "
               "called.",
               serial->c_str(), token->c_str(), sequenceNumber, or_nil(responseAudio));
        if (ScriptNode::scriptCompletedForResource(*serial, *token, sequenceNumber, responseAudio))
            return kal_ResponseCode_OK;
        kallog(KAL_DEBUG, "No such node, or node no longer script node");
        if (responseAudio)
            dispose_of_client_audio(*responseAudio);
        return kal_ResponseCode_ERR_NoResource;
    });
}

std::string stopCRNodeForResource(const Caller&, const OptString& serial) {
    return guarded("stopCRNodeForResource...", [&]() -> std::string {
        if (!serial || !limits::fits(serial, limits::kSerial))
            return kal_ResponseCode_ERR_MalformedRequest;
        kallog(KAL_DEBUG, "stopCRNodeForResource:%s called", serial->c_str());
        if (CRNode::stopForResource(*serial))
            return kal_ResponseCode_OK;
        kallog(KAL_DEBUG, "No such node, or node no longer CR node");
        return kal_ResponseCode_ERR_NoResource;
    });
}

// An empty list is the client's nil: the session needs at least one code.
std::string startScriptNodeForResource(const Caller&, const OptString& serial,
                                       const OptString& token, const StringList& choices,
                                       const StringList& responseChoices,
                                       const OptString& prepicking) {
    return guarded("startScriptNode...", [&]() -> std::string {
        if (!serial || !token || (choices.empty() && responseChoices.empty()) ||
            !fits_line(serial, token) || !limits::fits(choices, limits::kDigits) ||
            !limits::fits(responseChoices, limits::kDigits) ||
            !limits::fits(prepicking, limits::kDigits))
            return kal_ResponseCode_ERR_MalformedRequest;
        kallog(KAL_DEBUG,
               "startScriptNodeForResource:%s token:%s with %d choices:%s achoices:%s called",
               serial->c_str(), token->c_str(),
               static_cast<int>(choices.size() + responseChoices.size()),
               describe_list(choices).c_str(), describe_list(responseChoices).c_str());
        if (!ScriptNode::startForResource(*serial, *token, choices, responseChoices, prepicking))
            return kal_ResponseCode_ERR_InternalError;
        return kal_ResponseCode_OK;
    });
}

}  // namespace kal::requests
