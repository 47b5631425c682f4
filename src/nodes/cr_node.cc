#include "nodes/cr_node.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "core/device_table.h"
#include "lineio/safe_io.h"
#include "log/kallog.h"
#include "service/notifier.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

constexpr size_t kBeepChunk = 1024;

void* me(CRNode* node) {
    return static_cast<void*>(node);
}

}  // namespace

const char* CRNode::stateName(int state) {
    switch (state) {
        case kIdle:
            return "IDLE";
        case kPrePlay:
            return "PREPLAY";
        case kRecording:
            return "RECORDING";
        case kPostPlay:
            return "POSTPLAY";
        case kCancelled:
            return "CANCELLED";
        default:
            return "UNKNOWN";
    }
}

std::shared_ptr<CRNode> CRNode::beginForResource(const std::string& serial,
                                                 const std::string& token,
                                                 const std::string& recFile,
                                                 const std::optional<std::string>& prePlay,
                                                 const std::optional<std::string>& postPlay,
                                                 uint32_t flags) {
    auto node = createWithSerial(serial, token, recFile, prePlay, postPlay, flags);
    node->begin();
    return node;
}

bool CRNode::stopForResource(const std::string& serial) {
    auto recorder = onLine<CRNode>(serial, kNodeTypeCallRecording);
    if (!recorder)
        return false;
    recorder->stop();
    return true;
}

std::shared_ptr<CRNode> CRNode::createWithSerial(const std::string& serial,
                                                 const std::string& token,
                                                 const std::string& recFile,
                                                 const std::optional<std::string>& prePlay,
                                                 const std::optional<std::string>& postPlay,
                                                 uint32_t flags) {
    auto node = create<CRNode>(serial, token, recFile, prePlay, postPlay, flags);
    if (!serial.empty())
        node->attachToDeviceTable(serial, kNodeTypeCallRecording);
    return node;
}

CRNode::CRNode(CreateKey key, const std::string& serial, std::string token, std::string recFile,
               std::optional<std::string> prePlay, std::optional<std::string> postPlay,
               uint32_t flags)
    : Node(key),
      token_(std::move(token)),
      recFile_(std::move(recFile)),
      prePlay_(std::move(prePlay)),
      postPlay_(std::move(postPlay)),
      append_((flags & kFlagAppend) != 0),
      acr_((flags & kFlagACR) != 0) {
    kallog(KAL_DEBUG, "CRNode %p being initialized for serial %s", me(this), serial.c_str());
}

void CRNode::setState(State next, const char* reason) {
    logStateChange("CRNode", stateName(state_.load()), stateName(next), reason);
    state_ = next;
}

void CRNode::begin() {
    NodeLock lock(*this);
    if (prePlay_) {
        kallog(KAL_DEBUG, "-begin called on CRNode %p. Starting preplay.", me(this));
        if (schedulePlayOf(*prePlay_, kPrePlayFlags, stopString(), 0, token_)) {
            setState(kPrePlay, "pre-play sent");
            return;
        }
        kallog(KAL_DEBUG, "Couldn't playback pre-play message file '%s' in CRNode %p",
               prePlay_->c_str(), me(this));
        endWithFailure(kal_ResponseCode_ERR_InvalidFile, lock);
        return;
    }
    kallog(KAL_DEBUG, "-begin called on CRNode %p. Preplay skipped. Starting recording", me(this));
    if (beginRecording()) {
        setState(kRecording, "record sent, no pre-play");
        return;
    }
    kallog(KAL_DEBUG, "Failed to initiate recording");
    endSilently(lock);
}

bool CRNode::beginRecording() {
    if (append_)
        appendBeep();
    const bool sent = scheduleRecordInto(recFile_, append_ ? kRecordAppendFlags : kRecordFlags,
                                         stopString(), 0, token_);
    // The recording has no length limit: the line monitor must not give up
    // on the call while it runs. The node lock is held already.
    extendTimerWithLocking(false, kRecordDeadmanSeconds);
    return sent;
}

void CRNode::appendBeep() {
    kallog(KAL_DEBUG, "CRNode %p appendBeep: Starting append", me(this));
    const unique_fd tone(::open(tone450_path().c_str(), O_RDONLY | O_CLOEXEC));
    if (!tone) {
        const int e = errno;
        kallog(KAL_WARN, "CRNode %p appendBeep: Couldn't open tone file for reading. %d-%s",
               me(this), e, strerror(e));
        return;
    }
    // Never created: without an earlier recording there is nothing to follow.
    const unique_fd dest(::open(recFile_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    if (!dest) {
        const int e = errno;
        kallog(KAL_WARN, "CRNode %p appendBeep: Couldn't open append file for writing. %d-%s",
               me(this), e, strerror(e));
        return;
    }
    char buffer[kBeepChunk];
    for (;;) {
        const ssize_t got = safe_read(tone.get(), buffer, sizeof buffer, nullptr, -1);
        if (got < 0) {
            const int e = errno;
            kallog(KAL_WARN, "CRNode %p appendBeep: Couldn't read from source file. %d-%s",
                   me(this), e, strerror(e));
            return;
        }
        if (got == 0) {
            kallog(KAL_DEBUG, "CRNode %p appendBeep: Appended beep", me(this));
            return;
        }
        if (safe_write(dest.get(), buffer, static_cast<size_t>(got)) < got) {
            const int e = errno;
            kallog(KAL_WARN, "CRNode %p appendBeep: Couldn't write to destination file. %d-%s",
                   me(this), e, strerror(e));
            return;
        }
    }
}

int CRNode::handleEventWithBuffer(const char* buffer, int length, int, const char*) {
    NodeLock lock(*this);
    if (finished()) {
        kallog(KAL_DEBUG, "CRNode %p: Ignoring event because finished.", me(this));
        return kNodePassOn;
    }
    const char c = length > 0 ? buffer[0] : '\0';
    const int state = state_.load();
    if (c == lm::kEvtAudio) {
        const lm::lm_audio_response reply =
            lm::parse_audio_response(buffer, static_cast<size_t>(length));
        switch (state) {
            case kPrePlay:
                return handlePreplayComplete(reply, lock);
            case kRecording:
                return handleRecordComplete(reply, lock);
            case kPostPlay:
                return handlePostplayComplete(reply, lock);
            case kCancelled:
                return handleCancelledPreplayComplete(lock);
            default:
                break;
        }
    }
    kallog(KAL_DEVEL, "CRNode %p ignoring event %c in state %d", me(this), c, state);
    return kNodePassOn;
}

int CRNode::handlePreplayComplete(const lm::lm_audio_response& reply, NodeLock& lock) {
    switch (reply.status) {
        case lm::kAudioInvalidFile:
            kallog(KAL_WARN, "CRNode %p: QLX couldn't playback preplay. Invalid file '%s'.",
                   me(this), prePlay_.value_or("").c_str());
            endWithFailure(kal_ResponseCode_ERR_InvalidFile, lock);
            return kNodeConsumed;
        case lm::kAudioBusy:
            kallog(KAL_WARN, "CRNode %p: QLX couldn't playback preplay. Already busy.", me(this));
            endWithFailure(kal_ResponseCode_ERR_ResourceBusy, lock);
            return kNodeConsumed;
        case lm::kAudioComplete:
            kallog(KAL_DEBUG, "CRNode %p: Preplay complete.", me(this));
            // Recording whether or not the command could be sent: a node
            // without a line hears nothing more, and a device loss reports.
            beginRecording();
            setState(kRecording, "pre-play complete");
            return kNodeConsumed;
        case lm::kAudioStopped:
            kallog(KAL_WARN, "CRNode %p: Interrupted during preplay.", me(this));
            endWithCompletion(kal_ResponseCode_OK_NoAudio, reply.stopChar, lock);
            return kNodeConsumed;
        default:
            kallog(KAL_WARN, "CRNode %p: Unknown playback status. Ignoring.", me(this));
            return kNodePassOn;
    }
}

int CRNode::handleRecordComplete(const lm::lm_audio_response& reply, NodeLock& lock) {
    switch (reply.status) {
        case lm::kAudioBusy:
            kallog(KAL_WARN, "CRNode %p: QLX couldn't record audio. Already busy.", me(this));
            endWithFailure(kal_ResponseCode_ERR_ResourceBusy, lock);
            return kNodeConsumed;
        case lm::kAudioInvalidFile:
            kallog(KAL_WARN, "CRNode %p: QLX couldn't record audio. Invalid file '%s'.", me(this),
                   recFile_.c_str());
            endWithFailure(kal_ResponseCode_ERR_InvalidFile, lock);
            return kNodeConsumed;
        case lm::kAudioComplete:
            kallog(KAL_DEBUG, "CRNode %p: Record stopped due to timeout.", me(this));
            if (postPlay_) {
                beginPostPlay(lock);
            } else {
                // The line monitor's own limit: reported as audio whatever
                // the file holds.
                endWithCompletion(kal_ResponseCode_OK_AudioReceived, '\0', lock);
            }
            return kNodeConsumed;
        case lm::kAudioStopped: {
            const char stop = reply.stopChar;
            if (std::string_view(kNoPostPlayStops).find(stop) == std::string_view::npos) {
                kallog(KAL_DEBUG, "CRNode %p: Record stopped due to postplay stopchar %c.",
                       me(this), stop);
                if (postPlay_) {
                    beginPostPlay(lock);
                    return kNodeConsumed;
                }
                kallog(KAL_DEBUG, "CRNode %p: No postplay requested", me(this));
            } else {
                kallog(KAL_DEBUG, "CRNode %p: Record stopped due to no-postplay stopchar %c.",
                       me(this), stop);
            }
            endWithCompletion(codeForRecording(), stop, lock);
            return kNodeConsumed;
        }
        default:
            kallog(KAL_WARN, "CRNode %p: Unknown playback status. Ignoring.", me(this));
            return kNodePassOn;
    }
}

void CRNode::beginPostPlay(NodeLock& lock) {
    kallog(KAL_DEBUG, "CRNode %p: Beginning postplay of file '%s'", me(this), postPlay_->c_str());
    if (schedulePlayOf(*postPlay_, kPostPlayFlags, stopString(), 0, token_)) {
        setState(kPostPlay, "post-play sent");
        return;
    }
    kallog(KAL_DEBUG, "Couldn't playback post-play message file '%s' in CRNode %p",
           postPlay_->c_str(), me(this));
    endWithFailure(kal_ResponseCode_ERR_InvalidFile, lock);
}

int CRNode::handlePostplayComplete(const lm::lm_audio_response& reply, NodeLock& lock) {
    // Whatever the reply, a recording with nothing in it goes.
    const bool empty = isAudioFileEmpty(recFile_);
    if (empty)
        trashEmptyAudioFile(recFile_);
    switch (reply.status) {
        case lm::kAudioInvalidFile:
            // It names the pre-play file: the line has always read so.
            kallog(KAL_WARN, "CRNode %p: QLX couldn't playback postplay. Invalid file '%s'.",
                   me(this), prePlay_.value_or("").c_str());
            break;
        case lm::kAudioBusy:
            kallog(KAL_WARN, "CRNode %p: QLX couldn't playback postplay. Already busy.", me(this));
            break;
        case lm::kAudioComplete:
            kallog(KAL_DEBUG, "CRNode %p: Postplay complete.", me(this));
            break;
        case lm::kAudioStopped:
            kallog(KAL_WARN, "CRNode %p: Interrupted during postplay.", me(this));
            break;
        case lm::kAudioOnHook:
            kallog(KAL_DEBUG, "CRNode %p: Couldn't start postplay. Line likely onhook.", me(this));
            break;
        default:
            kallog(KAL_WARN, "CRNode %p: Unknown playback status. Ignoring.", me(this));
            return kNodePassOn;
    }
    // The recording is over either way: a failed post-play still completes.
    const char* code =
        !cancelled_ && !empty ? kal_ResponseCode_OK_AudioReceived : kal_ResponseCode_OK_NoAudio;
    endWithCompletion(code, reply.stopChar, lock);
    return kNodeConsumed;
}

int CRNode::handleCancelledPreplayComplete(NodeLock& lock) {
    if (!postPlay_) {
        kallog(KAL_DEBUG,
               "CRNode %p: Playback complete and recording already stopped. No postplay. Done.",
               me(this));
        endWithCompletion(kal_ResponseCode_OK_NoAudio, '\0', lock);
        return kNodeConsumed;
    }
    kallog(KAL_DEBUG,
           "CRNode %p: Playback complete and recording already stopped. Jumping to postplay.",
           me(this));
    beginPostPlay(lock);
    return kNodeConsumed;
}

void CRNode::stop() {
    NodeLock lock(*this);
    if (finished()) {
        kallog(KAL_DEBUG, "CRNode %p: No need to stop because finished", me(this));
        return;
    }
    switch (const int state = state_.load()) {
        case kRecording:
            kallog(KAL_DEBUG, "CRNode %p: User stopped recording.", me(this));
            // The line monitor ends the record; its reply drives the rest.
            cancelAudio();
            return;
        case kPrePlay:
            // The announcement plays to its end; no recording follows it.
            cancelled_ = true;
            kallog(KAL_DEBUG, "CRNode %p: Cancelling after plays", me(this));
            setState(kCancelled, "stopped during pre-play");
            return;
        case kCancelled:
            kallog(KAL_DEBUG, "CRNode %p: Ignoring duplicate stop request", me(this));
            return;
        case kPostPlay:
            kallog(KAL_DEBUG, "CRNode %p: ignoring stop request during postplay.", me(this));
            return;
        default:
            kallog(KAL_DEBUG, "CRNode %p: ignoring stop request during unknown state %d.", me(this),
                   state);
            return;
    }
}

const char* CRNode::codeForRecording() {
    if (isAudioFileEmpty(recFile_)) {
        trashEmptyAudioFile(recFile_);
        return kal_ResponseCode_OK_NoAudio;
    }
    return kal_ResponseCode_OK_AudioReceived;
}

void CRNode::beforeDeviceLost() {
    // Nothing yet: marking the node as torn down under the caller's lock
    // waits until deviceLost knows that it is the one ending the node.
}

void CRNode::deviceLost() {
    // The device-table lock is held: no node lock here.
    kallog(KAL_DEBUG, "CRNode %p: Notifying above of completion due to device loss", me(this));
    if (ended_.exchange(true)) {
        // A reply ended the node first: it has reported and tears down as
        // soon as it gets the device-table lock, which it must take itself.
        return;
    }
    // From here on the serial and the teardown are read and done under the
    // caller's lock.
    Node::beforeDeviceLost();
    const int state = state_.load();
    const char* code =
        state == kPrePlay || state == kCancelled ? kal_ResponseCode_OK_NoAudio : codeForRecording();
    report_crnode_complete(token_, code, '\0', 1, reportSerial());
    Node::deviceLost();
}

void CRNode::endWithCompletion(const char* code, char cause, NodeLock& lock) {
    if (ended_.exchange(true))
        return;
    report_crnode_complete(token_, code, cause, 1, reportSerial());
    lock.unlock();
    Node::teardown();
}

void CRNode::endWithFailure(const char* code, NodeLock& lock) {
    if (ended_.exchange(true))
        return;
    notify_cmd_failure(token_, code, serialNumber());
    lock.unlock();
    Node::teardown();
}

void CRNode::endSilently(NodeLock& lock) {
    if (ended_.exchange(true))
        return;
    lock.unlock();
    Node::teardown();
}

void CRNode::teardown() {
    // Without the node lock: this may come under the device-table lock
    // (device loss, or another node taking the line).
    ended_ = true;
    Node::teardown();
}
