#include "nodes/vmcheck_node.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "core/device_table.h"
#include "log/kallog.h"
#include "service/notifier.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

void* me(VMCheckNode* node) {
    return static_cast<void*>(node);
}

// Deletes `path`; answers 0, or the errno of the failure.
int unlink_file(const std::string& path) {
    return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

// The remote check on the line `serial`, if that is what the line has.
std::shared_ptr<VMCheckNode> vmcheck_node_on(const std::string& serial) {
    return Node::onLine<VMCheckNode>(serial, kNodeTypeVoicemailCheck);
}

}  // namespace

const char* VMCheckNode::stateName(int state) {
    switch (state) {
        case kIdle:
            return "IDLE";
        case kMainMenu:
            return "MAINMENU";
        case kAwaitMsg:
            return "AWAITMSG";
        case kPlayMsg:
            return "PLAYMSG";
        case kMsgMenu:
            return "MSGMENU";
        case kRestarting:
            return "RESTARTING";
        default:
            return "unknown";
    }
}

// ---- for the client requests ----

std::shared_ptr<VMCheckNode> VMCheckNode::beginForResource(const std::string& serial,
                                                           const std::string& token,
                                                           const std::string& initialGreeting,
                                                           const std::string& interMessageGreeting,
                                                           int special) {
    auto node = createWithSerial(serial, token, initialGreeting, interMessageGreeting, special);
    node->begin();
    return node;
}

bool VMCheckNode::nextMessageForResource(const std::string& serial, const std::string& audio) {
    auto node = vmcheck_node_on(serial);
    return node && node->nextMessage(audio);
}

bool VMCheckNode::restartForResource(const std::string& serial,
                                     const std::string& initialGreeting) {
    auto node = vmcheck_node_on(serial);
    return node && node->restart(initialGreeting);
}

std::shared_ptr<VMCheckNode> VMCheckNode::createWithSerial(const std::string& serial,
                                                           const std::string& token,
                                                           const std::string& initialGreeting,
                                                           const std::string& interMessageGreeting,
                                                           int special) {
    auto node = create<VMCheckNode>(serial, token, initialGreeting, interMessageGreeting, special);
    // The caller is on the line already: whatever else holds it goes.
    if (!serial.empty())
        node->attachToDeviceTable(serial, kNodeTypeVoicemailCheck, true);
    if (special != 0) {
        kallog(KAL_DEBUG, "VMCheckNode: Using short tones for remote VM check.");
    } else {
        kallog(KAL_DEVEL, "VMCheckNode: Using normal long tones for remote VM check.");
    }
    return node;
}

VMCheckNode::VMCheckNode(CreateKey key, const std::string& serial, std::string token,
                         std::string initialGreeting, std::string interMessageGreeting, int special)
    : Node(key),
      token_(std::move(token)),
      interMessageGreeting_(std::move(interMessageGreeting)),
      preventTalkOff_(special != 0 ? 0 : kLongTones),
      initialGreeting_(std::move(initialGreeting)) {
    kallog(KAL_DEBUG, "VMCheckNode %p being initialized for serial %s", me(this), serial.c_str());
}

VMCheckNode::~VMCheckNode() {
    // The last reference is gone: no other thread can reach the fields.
    if (currentMessage_) {
        if (const int e = unlink_file(*currentMessage_)) {
            kallog(KAL_WARN, "VMCheckNode %p: Failed to unlink message '%s' at dealloc time: %d-%s",
                   me(this), currentMessage_->c_str(), e, strerror(e));
        }
    }
    if (const int e = unlink_file(initialGreeting_)) {
        kallog(KAL_WARN,
               "VMCheckNode %p: Failed to unlink initial greeting '%s' at dealloc time: %d-%s",
               me(this), initialGreeting_.c_str(), e, strerror(e));
    }
}

void VMCheckNode::setState(State next, const char* reason) {
    const int from = state_.exchange(next);
    logStateChange("VMCheckNode", stateName(from), stateName(next), reason);
}

// ---- endings ----

void VMCheckNode::finish(char cause) {
    // Taken over by force or by device loss in the meantime: the line is
    // no longer ours to hang up.
    if (finished_.exchange(true))
        return;
    report_script_session_complete(token_, kal_ResponseCode_OK_NoAudio, cause, 1, serialText());
    requestHangup();
    teardown();
}

void VMCheckNode::teardown() {
    finished_ = true;
    if (tearingDown_.exchange(true))
        return;
    Node::teardown();
}

// ---- plays ----

void VMCheckNode::begin() {
    NodeLock lock(*this);
    if (ended())
        return;
    beginLocked();
}

void VMCheckNode::beginLocked() {
    kallog(KAL_DEBUG, "-begin called on VMCheckNode %p ", me(this));
    if (schedulePlayOf(initialGreeting_, playFlags(), kMainMenuStops, kMenuPause, token_)) {
        setState(kMainMenu, "main greeting sent");
        return;
    }
    kallog(KAL_DEBUG, "Cancelling VMCheck");
    finish('\0');
}

void VMCheckNode::playInterMessageMenu() {
    kallog(KAL_DEBUG, "VMCheckNode %p: Playing inter message menu", me(this));
    if (schedulePlayOf(interMessageGreeting_, playFlags(), kMessageStops, kMenuPause, token_)) {
        setState(kMsgMenu, "inter-message menu sent");
        return;
    }
    kallog(KAL_DEBUG, "Cancelling VMCheck");
    finish('\0');
}

void VMCheckNode::playCurrentMessage(const std::optional<std::string>& next) {
    if (next) {
        // A client that reuses one path has written the new message over
        // the old: that file is the one to play.
        if (currentMessage_ && *currentMessage_ != *next) {
            if (const int e = unlink_file(*currentMessage_)) {
                kallog(KAL_WARN, "VMCheckNode %p: Failed to unlink message '%s': %d-%s", me(this),
                       currentMessage_->c_str(), e, strerror(e));
            }
        }
        currentMessage_ = *next;
        kallog(KAL_DEBUG, "VMCheckNode %p: received next message '%s'", me(this),
               currentMessage_->c_str());
    } else {
        kallog(KAL_DEBUG, "VMCheckNode %p: repeating playback of message '%s'", me(this),
               currentMessage_.value_or("").c_str());
    }
    if (schedulePlayOf(currentMessage_.value_or(""), playFlags(), kMessageStops, 0, token_)) {
        setState(kPlayMsg, next ? "message sent" : "message replayed");
        return;
    }
    kallog(KAL_DEBUG, "Cancelling VMCheck");
    finish('\0');
}

// ---- the client's answers ----

bool VMCheckNode::nextMessage(const std::string& path) {
    NodeLock lock(*this);
    if (ended())
        return false;
    playCurrentMessage(path);
    return true;
}

bool VMCheckNode::restart(const std::string& initialGreeting) {
    NodeLock lock(*this);
    if (ended())
        return false;
    kallog(KAL_DEBUG, "VMCheckNode %p: Node restarting with new main greeting '%s'.", me(this),
           initialGreeting.c_str());
    if (initialGreeting != initialGreeting_) {
        if (const int e = unlink_file(initialGreeting_)) {
            kallog(KAL_WARN, "VMCheckNode %p: Failed to unlink initial greeting '%s': %d-%s",
                   me(this), initialGreeting_.c_str(), e, strerror(e));
        }
    }
    initialGreeting_ = initialGreeting;
    setState(kIdle, "client restarts");
    beginLocked();
    return true;
}

void VMCheckNode::obtainNextMessageWithDisposition(const char* disposition) {
    vmcheck_request_next(token_, serialText(), disposition, streamIdentifier_);
    if (!resetDeadmanTimeout(kDeadmanSeconds)) {
        kallog(KAL_WARN,
               "VMCheckNode %p: Couldn't reset deadman timer to %d seconds from now. Things may "
               "time out...",
               me(this), kDeadmanSeconds);
    }
}

// ---- the caller's keys ----

int VMCheckNode::handleNavigationDTMF(char c) {
    const int state = state_.load();
    if (state == kMainMenu) {
        const char* stream = nullptr;
        switch (c) {
            case '1':
                kallog(KAL_DEBUG, "VMCheckNode %p: At main menu user selected unheard stream",
                       me(this));
                stream = kal_VMCheck_Filter_Unheard;
                break;
            case '2':
                kallog(KAL_DEBUG, "VMCheckNode %p: At main menu user selected recent stream",
                       me(this));
                stream = kal_VMCheck_Filter_Recent;
                break;
            case '3':
                kallog(KAL_DEBUG, "VMCheckNode %p: At main menu user selected call log stream",
                       me(this));
                stream = kal_VMCheck_Filter_CallLog;
                break;
            default:
                break;
        }
        if (stream != nullptr) {
            streamIdentifier_ = stream;
            obtainNextMessageWithDisposition(kal_VMCheck_Disposition_Skip);
            setState(kAwaitMsg, "stream chosen");
            return kNodeConsumed;
        }
    } else if (state == kPlayMsg || state == kMsgMenu) {
        const char* disposition = nullptr;
        switch (c) {
            case '1':
                kallog(KAL_DEBUG,
                       "VMCheckNode %p: Remote caller requests to repeat current message",
                       me(this));
                playCurrentMessage(std::nullopt);
                return kNodeConsumed;
            case '2':
                disposition = kal_VMCheck_Disposition_Save;
                break;
            case '3':
                disposition = kal_VMCheck_Disposition_Delete;
                break;
            case '#':
                disposition = kal_VMCheck_Disposition_Skip;
                break;
            case '*':
                if (state == kPlayMsg) {
                    kallog(KAL_DEBUG, "VMCheckNode %p: User aborted msg playback with *", me(this));
                    return kMessageAborted;
                }
                kallog(KAL_DEBUG, "VMCheckNode %p: User requested to start over with *", me(this));
                setState(kRestarting, "caller starts over");
                vmcheck_request_restart(token_, serialText());
                return kNodeConsumed;
            default:
                break;
        }
        if (disposition != nullptr) {
            kallog(KAL_DEBUG,
                   "VMCheckNode %p: Remote caller requests hear next message with disposition %c",
                   me(this), c);
            // The state stays until the client's message arrives.
            obtainNextMessageWithDisposition(disposition);
            return kNodeConsumed;
        }
    }
    kallog(KAL_DEBUG,
           "VMCheckNode %p: Stop character '%c' is not a menu choice in state %d. Must be an "
           "end-of-call indication. Terminating call.",
           me(this), c, state);
    finish(c);
    return kNodeConsumed;
}

// ---- events ----

int VMCheckNode::handleAudioReply(const Reply& reply) {
    switch (reply.status) {
        case lm::kAudioBusy:
            kallog(KAL_WARN, "VMCheckNode %p: QLX couldn't play audio. Already busy.", me(this));
            finish('\0');
            return kNodeConsumed;
        case lm::kAudioInvalidFile:
            kallog(KAL_WARN, "VMCheckNode %p: QLX couldn't play audio. Invalid file.", me(this));
            finish('\0');
            return kNodeConsumed;
        case lm::kAudioStopped: {
            kallog(KAL_DEBUG, "VMCheckNode %p: QLX interrupted during playback by '%c'", me(this),
                   reply.stopChar);
            const int handled = handleNavigationDTMF(reply.stopChar);
            if (handled != kMessageAborted)
                return handled;
            return handlePlayEnded();
        }
        case lm::kAudioComplete:
            return handlePlayEnded();
        default:
            // The voicemail node's wording: clients' log readers know it.
            kallog(KAL_WARN, "Unknown status %d reported by lm to VMNode %p", reply.status,
                   me(this));
            return kNodePassOn;
    }
}

int VMCheckNode::handlePlayEnded() {
    switch (state_.load()) {
        case kMainMenu:
            if (loopcount_ < kLoopLimit) {
                ++loopcount_;
                kallog(KAL_DEBUG,
                       "VMCheckNode %p: Looping initial greeting due to user non-response. "
                       "(Count=%d)",
                       me(this), loopcount_);
                beginLocked();
            } else {
                kallog(KAL_DEBUG, "VMCheckNode %p: Not looping again due to too many tries.",
                       me(this));
                finish('\0');
            }
            return kNodeConsumed;
        case kMsgMenu:
            if (loopcount_ < kLoopLimit) {
                ++loopcount_;
                kallog(KAL_DEBUG,
                       "VMCheckNode %p: Inter message menu complete. Looping. (Count=%d)", me(this),
                       loopcount_);
                playInterMessageMenu();
            } else {
                kallog(KAL_DEBUG, "VMCheckNode %p: Not looping IMM again due to too many tries.",
                       me(this));
                finish('\0');
            }
            return kNodeConsumed;
        case kPlayMsg:
            // The caller has heard a message out: the menus start counting again.
            loopcount_ = 0;
            playInterMessageMenu();
            return kNodeConsumed;
        default:
            return kNodePassOn;
    }
}

int VMCheckNode::handleEventWithBuffer(const char* buffer, int length, int, const char*) {
    NodeLock lock(*this);
    if (ended() || length < 1)
        return kNodePassOn;
    const char c = buffer[0];
    const int state = state_.load();
    // Waiting for the client, nothing of ours is playing: a reply then is
    // not acted on.
    if (c == lm::kEvtAudio && (state == kMainMenu || state == kPlayMsg || state == kMsgMenu))
        return handleAudioReply(lm::parse_audio_response(buffer, static_cast<size_t>(length)));
    switch (c) {
        case lm::kEvtOffHook:
            // Clients hear of it first.
            return kNodeRehandle;
        case lm::kEvtReversal:
            kallog(KAL_DEBUG, "VMCheckNode %p: Got line reversal. Shutting down.", me(this));
            finish(c);
            return kNodeConsumed;
        default:
            kallog(KAL_DEBUG, "VMCheckNode %p: don't care about event '%c'. Passing up.", me(this),
                   c);
            return kNodePassOn;
    }
}

void VMCheckNode::rehandleEventWithBuffer(const char* buffer, int length, int, const char*) {
    NodeLock lock(*this);
    if (ended() || length < 1)
        return;
    if (buffer[0] == lm::kEvtOffHook)
        finish(buffer[0]);
}
