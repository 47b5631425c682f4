// The answering session: OGM, mailbox choices, ICM, and the endings.

#include "nodes/vm_node.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "core/qlxconfig.h"
#include "lineio/timers.h"
#include "log/kallog.h"
#include "nodes/fax_wait_node.h"
#include "service/notifier.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

bool any_longer_than_one(const std::vector<std::string>& choices) {
    for (const auto& choice : choices)
        if (choice.size() > 1)
            return true;
    return false;
}

bool is_stop_event(char c) {
    return c != '\0' && std::strchr(VMNode::kStopEvents, c) != nullptr;
}

}  // namespace

const char* VMNode::stateName(int state) {
    switch (state) {
        case kIdle:
            return "IDLE";
        case kDialing:
            return "DIALING";
        case kSentPlay:
            return "SENTPLAY";
        case kProbing:
            return "PROBING";
        case kPausing:
            return "PAUSING";
        case kDigitWait:
            return "DIGITWAIT";
        case kSentRec:
            return "SENTREC";
        case kComplete:
            return "COMPLETE";
        default:
            return "unknown";
    }
}

std::shared_ptr<VMNode> VMNode::createWithSerial(
    const std::string& serial, const std::string& token, std::optional<std::string> ogm,
    std::optional<std::string> icm, std::vector<std::string> choices, int maxMessageLength,
    int postOGMPause, int special, std::optional<std::string> firstCalling) {
    auto node = create<VMNode>(serial, token, std::move(ogm), std::move(icm), std::move(choices),
                               maxMessageLength, postOGMPause, special, std::move(firstCalling));
    if (!serial.empty())
        node->attachToDeviceTable(serial, kNodeTypeVoicemail);
    return node;
}

std::shared_ptr<VMNode> VMNode::beginForResource(
    const std::string& serial, const std::string& token, std::optional<std::string> ogm,
    std::optional<std::string> icm, std::vector<std::string> choices, int maxMessageLength,
    int postOGMPause, int special, std::optional<std::string> firstCalling) {
    auto node = createWithSerial(serial, token, std::move(ogm), std::move(icm), std::move(choices),
                                 maxMessageLength, postOGMPause, special, std::move(firstCalling));
    node->begin();
    return node;
}

VMNode::VMNode(CreateKey key, const std::string& serial, std::string token,
               std::optional<std::string> ogm, std::optional<std::string> icm,
               std::vector<std::string> choices, int maxMessageLength, int postOGMPause,
               int special, std::optional<std::string> firstCalling)
    : Node(key),
      token_(std::move(token)),
      ogm_(std::move(ogm)),
      recFile_(std::move(icm)),
      dial_(std::move(firstCalling)),
      choices_(std::move(choices)),
      maxLength_(maxMessageLength),
      postogmpause_(postOGMPause),
      special_(special),
      multidigit_(any_longer_than_one(choices_) ? 1 : 0) {
    kallog(KAL_DEBUG, "VMNode %p being initialized for serial %s", static_cast<void*>(this),
           serial.c_str());
}

void VMNode::setState(State next, const char* reason) {
    const int from = state_.exchange(next);
    logStateChange("VMNode", stateName(from), stateName(next), reason);
}

bool VMNode::isAnnounceOnlyLeaf() const {
    return !haveICM() && (choices_.empty() || (choices_.size() == 1 && choices_[0] == "*"));
}

void VMNode::takeAudioToken() {
    lastplayreccount_ = getNextAudioToken();
    temptoken_ = std::to_string(lastplayreccount_);
}

bool VMNode::isFresh(const Reply& reply) const {
    const int token = std::atoi(reply.token.c_str());
    if (token != 0 && token != lastplayreccount_) {
        kallog(KAL_DEBUG, "VMNode %p: EOF message is stale (%d != %d). Discarding.",
               static_cast<const void*>(this), token, lastplayreccount_);
        return false;
    }
    kallog(KAL_DEBUG, "VMNode %p: Freshness is assured (%d == %d).", static_cast<const void*>(this),
           token, lastplayreccount_);
    return true;
}

// ---- endings ----

void VMNode::endWithCompletion(const char* code, char cause, bool onHook, bool hangUp) {
    if (claimReport())
        report_vmnode_complete(token_, code, cause, onHook ? 1 : 0, serialText());
    if (hangUp)
        requestHangup();
    teardown();
}

void VMNode::endWithDigits(const char* code, const std::string& digits, bool onHook) {
    if (claimReport())
        report_vmnode_completes(token_, code, digits, onHook ? 1 : 0, serialText());
    teardown();
}

void VMNode::endWithFailure(const char* code, bool hangUp) {
    if (claimReport())
        notify_cmd_failure(token_, code, serialNumber());
    if (hangUp)
        requestHangup();
    teardown();
}

void VMNode::teardown() {
    if (tearingDown_.exchange(true))
        return;
    setState(kComplete, "teardown");
    // Without the node lock (see the class comment); a timer that fires all
    // the same finds the node torn down.
    cancel_timer(timerId());
    Node::teardown();
}

void VMNode::deviceLost() {
    if (isTornDown())
        return;
    if (state_ != kIdle && claimReport())
        notify_cmd_failure(token_, kal_ResponseCode_ERR_NoResource, serialNumber());
    Node::deviceLost();
}

// ---- the answering session ----

void VMNode::begin() {
    NodeLock lock(*this);
    if (needToDial())
        beginDialing();
    else
        beginPlayback();
}

std::string VMNode::playStopString() const {
    std::string stops;
    if (multiDigit()) {
        // Any digit may begin a choice; `#` and `*` only when one does.
        stops = "0123456789";
        for (const auto& choice : choices_) {
            if (!choice.empty() && choice[0] == '#')
                stops += '#';
            if (!choice.empty() && choice[0] == '*')
                stops += '*';
        }
    } else {
        for (const auto& choice : choices_)
            stops += choice;
    }
    if (haveICM() && stops.find('#') == std::string::npos)
        stops += '#';
    stops += (special_ & kSpecialCallBlocking) ? kPlayStopsCallBlocking : kPlayStops;
    return stops;
}

void VMNode::beginPlayback() {
    kallog(KAL_DEBUG, "-beginPlayback called on VMNode %p (called %d times before)",
           static_cast<void*>(this), loopcount_);
    ++loopcount_;
    digitsreceived_.clear();

    const int limit = (special_ & kSpecialShortLoopLimit) ? kShortLoopLimit : kLoopLimit;
    if (loopcount_ > limit) {
        kallog(KAL_DEBUG, "Not looping again due to too many tries. Terminating session");
        endWithCompletion(kal_ResponseCode_OK_NoAudio, '\0', true, true);
        return;
    }
    if (!haveOGM() && haveICM()) {
        kallog(KAL_DEBUG, "Skipping OGM for this mailbox. Jumping to record.");
        beginRecord();
        return;
    }

    const std::string stops = playStopString();
    kallog(KAL_DEBUG, "VMNode %p: stopstring is '%s'", static_cast<void*>(this), stops.c_str());
    takeAudioToken();
    if (schedulePlayOf(ogm_.value_or(""), kPlayFlags, stops, 0, temptoken_)) {
        setState(kSentPlay, "OGM play sent");
        return;
    }
    kallog(KAL_DEBUG, "Cancelling answering machine");
    // An inbound session whose very first play fails has not touched the
    // line: nothing to hang up.
    endWithFailure(kal_ResponseCode_ERR_InvalidFile, loopcount_ > 1 || needToDial());
}

void VMNode::playbackEOF() {
    if (!isAnnounceOnlyLeaf()) {
        if (postogmpause_ != 0) {
            kallog(KAL_DEBUG,
                   "VMNode %p: QLX Reports playback complete. Entering post-ogm pause of %d "
                   "seconds",
                   static_cast<void*>(this), postogmpause_);
            startInactivityTimer(postogmpause_);
        } else {
            kallog(KAL_DEBUG,
                   "VMNode %p: QLX Reports playback complete. No post-ogm pause. Simulating "
                   "pause ending.",
                   static_cast<void*>(this));
            setState(kPausing, "OGM over, no pause");
            fireInactivityTimerWithLocking(false);
        }
    } else if (special_ & kSpecialLoopAnnouncement) {
        kallog(KAL_DEBUG,
               "VMNode %p: QLX completed playback of announce-only OGM. Looping as requested",
               static_cast<void*>(this));
        beginPlayback();
    } else if (special_ & kSpecialLeaveOffHook) {
        kallog(KAL_DEBUG,
               "VMNode %p: QLX completed playback of announce-only OGM. Node exiting with line "
               "offhook as requested.",
               static_cast<void*>(this));
        endWithCompletion(kal_ResponseCode_OK_NoAudio, '#', true, false);
    } else {
        kallog(KAL_DEBUG, "VMNode %p: QLX completed playback of announce-only OGM",
               static_cast<void*>(this));
        endWithCompletion(kal_ResponseCode_OK_NoAudio, '\0', true, true);
    }
}

void VMNode::startInactivityTimer(int seconds) {
    cancel_timer(timerId());
    ++inactivityGeneration_;
    if (seconds == -1)
        return;
    if (state_ != kDigitWait)
        setState(kPausing, "post-OGM pause");
    addTimerIn(
        seconds,
        [](Node& node, int generation) {
            static_cast<VMNode&>(node).inactivityTimerFired(generation);
        },
        inactivityGeneration_);
}

void VMNode::inactivityTimerFired(int generation) {
    NodeLock lock(*this);
    if (isTornDown())
        return;
    // Already taken off the timer list when a digit cancelled it.
    if (generation != inactivityGeneration_) {
        kallog(KAL_DEVEL, "VMNode %p: Inactivity timer %d superseded. Ignoring.",
               static_cast<void*>(this), generation);
        return;
    }
    fireInactivityTimerWithLocking(false);
}

void VMNode::fireInactivityTimerWithLocking(bool lock) {
    std::optional<NodeLock> guard;
    if (lock) {
        guard.emplace(*this);
        if (isTornDown())
            return;
    }
    switch (state_.load()) {
        case kDigitWait:
            kallog(KAL_DEBUG,
                   "Node %p: Inactivity timer has fired while waiting for digits. Restarting "
                   "playback.",
                   static_cast<void*>(this));
            beginPlayback();
            break;
        case kPausing:
            if (haveICM()) {
                kallog(KAL_DEBUG,
                       "Node %p: Inactivity timer has fired after playback. Starting record.",
                       static_cast<void*>(this));
                beginRecord();
            } else {
                kallog(KAL_DEBUG,
                       "Node %p: Inactivity timer has fired after playback. No ICM... looping "
                       "menu.",
                       static_cast<void*>(this));
                beginPlayback();
            }
            break;
        default:
            kallog(KAL_DEBUG, "Node %p: Inactivity timer has fired in inappropriate state %d.",
                   static_cast<void*>(this), state_.load());
            break;
    }
}

void VMNode::processDigit(char d) {
    if (digitsreceived_.size() < kMaxDigits)
        digitsreceived_ += d;

    if (!multiDigit() && !(haveICM() && d == '#')) {
        bool valid = false;
        for (const auto& choice : choices_) {
            kallog(KAL_DEVEL, "VMNode %p: Single-digit checking %s == %s", static_cast<void*>(this),
                   digitsreceived_.c_str(), choice.c_str());
            if (digitsreceived_ == choice) {
                valid = true;
                break;
            }
        }
        if (!valid) {
            // Not in the OGM's stop string either: the OGM plays on.
            kallog(KAL_DEBUG,
                   "VMNode %p: Single-digit processDigit ignored invalid choice digit '%c'",
                   static_cast<void*>(this), d);
            digitsreceived_.clear();
            return;
        }
    }

    if (state_ == kPausing || state_ == kDigitWait)
        startInactivityTimer(-1);
    setState(kDigitWait, "choice digit");

    if (digitsreceived_ == "#" && haveICM()) {
        kallog(KAL_DEBUG,
               "VMNode %p: User selected mailbox '#' and we have an ICM available. Simulate "
               "PPP-timeout.",
               static_cast<void*>(this));
        setState(kPausing, "record at once");
        fireInactivityTimerWithLocking(false);
        return;
    }

    if (multiDigit()) {
        kallog(KAL_DEBUG, "VMNode %p: Digit %c received. Digit string now '%s'",
               static_cast<void*>(this), d, digitsreceived_.c_str());
        for (const auto& choice : choices_) {
            if (digitsreceived_ == choice) {
                kallog(KAL_DEBUG, "VMNode %p: Dialed digits match choice '%s'",
                       static_cast<void*>(this), choice.c_str());
                // The client carries on with the call: no hang-up.
                endWithDigits(kal_ResponseCode_OK_NoAudio, digitsreceived_, false);
                return;
            }
        }
        // No prefix test: digits collect until a whole choice matches or
        // the caller stops pressing.
        kallog(KAL_DEBUG, "VMNode %p: Dialed digits not a match. Starting inter-digit timer.",
               static_cast<void*>(this));
        startInactivityTimer(kInterDigitSeconds);
        return;
    }

    kallog(KAL_DEBUG, "VMNode %p: QLX interrupted during single-digit OGM by digit '%c'",
           static_cast<void*>(this), d);
    endWithCompletion(kal_ResponseCode_OK_NoAudio, d, false, false);
}

void VMNode::beginRecord() {
    kallog(KAL_DEBUG, "VMNode %p: Initiating record session.", static_cast<void*>(this));
    takeAudioToken();
    const int flags = (special_ & kSpecialAltRecordFlags) ? kRecordFlagsAlt : kRecordFlags;
    const char* stops = qlx_enabled_silence_detection != 0 ? kRecordStopsSilence : kRecordStops;
    if (scheduleRecordInto(recFile_.value_or(""), flags, stops, maxLength_, temptoken_)) {
        setState(kSentRec, "ICM record sent");
        report_vm_record_start(token_, serialText());
        return;
    }
    endWithFailure(kal_ResponseCode_ERR_InternalError, true);
}

int VMNode::handlePlaybackReply(const Reply& reply) {
    if (!isFresh(reply))
        return kNodeConsumed;
    switch (reply.status) {
        case lm::kAudioBusy:
            kallog(KAL_WARN, "VMNode %p: QLX couldn't play OGM. Already busy.",
                   static_cast<void*>(this));
            endWithFailure(kal_ResponseCode_ERR_ResourceBusy, true);
            return kNodeConsumed;
        case lm::kAudioInvalidFile:
            kallog(KAL_WARN, "VMNode %p: QLX couldn't play OGM. Invalid file '%s'.",
                   static_cast<void*>(this), ogm_.value_or("(null)").c_str());
            endWithFailure(kal_ResponseCode_ERR_InvalidFile, true);
            return kNodeConsumed;
        case lm::kAudioComplete:
            if (special_ & kSpecialProbe) {
                initProbe();
                beginProbe();
            } else {
                playbackEOF();
            }
            return kNodeConsumed;
        case lm::kAudioStopped:
            // A choice digit arrives as its own event and is taken there.
            if (shouldHangUpOn(reply.stopChar)) {
                kallog(KAL_DEBUG, "VMNode %p: QLX interrupted during OGM by line event '%c'",
                       static_cast<void*>(this), reply.stopChar);
                endWithCompletion(kal_ResponseCode_OK_NoAudio, reply.stopChar, true, true);
            }
            return kNodeConsumed;
        default:
            kallog(KAL_WARN, "Unknown status %d reported by lm to VMNode %p", reply.status,
                   static_cast<void*>(this));
            return kNodePassOn;
    }
}

int VMNode::handleRecordReply(const Reply& reply) {
    if (!isFresh(reply))
        return kNodeConsumed;
    switch (reply.status) {
        case lm::kAudioBusy:
            kallog(KAL_WARN, "VMNode %p: QLX couldn't record ICM. Already busy.",
                   static_cast<void*>(this));
            endWithFailure(kal_ResponseCode_ERR_ResourceBusy, true);
            break;
        case lm::kAudioInvalidFile:
            kallog(KAL_WARN, "VMNode %p: QLX couldn't record ICM. Invalid file '%s'.",
                   static_cast<void*>(this), recFile_.value_or("(null)").c_str());
            endWithFailure(kal_ResponseCode_ERR_InvalidFile, true);
            break;
        case lm::kAudioComplete:
        case lm::kAudioStopped: {
            const std::string path = recFile_.value_or("");
            if (isAudioFileEmpty(path)) {
                trashEmptyAudioFile(path);
                endWithCompletion(kal_ResponseCode_OK_NoAudio, reply.stopChar, true, false);
                kallog(KAL_DEBUG, "VM Node %p complete (audio file empty).",
                       static_cast<void*>(this));
            } else {
                endWithCompletion(kal_ResponseCode_OK_AudioReceived, reply.stopChar, true, false);
                kallog(KAL_DEBUG, "VM Node %p complete (audio file good).",
                       static_cast<void*>(this));
            }
            break;
        }
        default:
            break;
    }
    return kNodeConsumed;
}

// ---- events ----

int VMNode::handleEventWithBuffer(const char* buffer, int length, int, const char* serial) {
    NodeLock lock(*this);
    if (isTornDown() || length < 1)
        return kNodePassOn;
    const char c = buffer[0];
    const int state = state_.load();
    const auto reply = [&] {
        return lm::parse_audio_response(buffer, static_cast<size_t>(length));
    };

    if (state == kProbing) {
        if (c == lm::kEvtSilence) {
            kallog(KAL_DEBUG,
                   "VMNode %p: QLX reports silence during probe. Positive sign but not "
                   "thrilling.",
                   static_cast<void*>(this));
            return kNodeConsumed;
        }
        if (c == lm::kEvtSignal) {
            kallog(KAL_DEBUG, "VMNode %p: QLX reports silence during probe. Noting probe failure.",
                   static_cast<void*>(this));
            detectedSignal_ = 1;
            return kNodeConsumed;
        }
        if (c == lm::kEvtAudio)
            return handleProbingRecordReply(reply());
    }
    if (state == kDialing) {
        if (c == lm::kEvtAudio)
            return handleDialingRecordReply(reply());
        if (c == lm::kEvtDialTone) {
            kallog(KAL_DEBUG, "VMNode %p: QLX reports dialtone. Interesting but not thrilling.",
                   static_cast<void*>(this));
            return kNodeConsumed;
        }
        if (c == lm::kEvtSignal) {
            kallog(KAL_DEBUG, "VMNode %p: QLX reports signal detect. Setting flag.",
                   static_cast<void*>(this));
            detectedSignal_ = 1;
            return kNodeConsumed;
        }
    }
    if (state == kSentPlay && c == lm::kEvtAudio)
        return handlePlaybackReply(reply());

    const bool inSession = state == kSentPlay || state == kPausing || state == kDigitWait;
    if (c == lm::kEvtFax && (inSession || state == kSentRec)) {
        if (special_ & kSpecialCallBlocking) {
            kallog(KAL_DEBUG,
                   "VMNode %p: QLX reported FAX tone ('%c') - ignoring due to call blocking.",
                   static_cast<void*>(this), c);
            return kNodeConsumed;
        }
        kallog(KAL_DEBUG, "VMNode %p: QLX reported FAX tone ('%c') - installing faxwait node.",
               static_cast<void*>(this), c);
        const std::string line = serial != nullptr ? std::string(serial) : serialText();
        FaxWaitNode::createWithSerial(line, token_)->begin();
        // Where an audio reply keeps its stop character; a bare fax event
        // has nothing there.
        const char cause = static_cast<size_t>(length) > Reply::kStopCharOffset
                               ? buffer[Reply::kStopCharOffset]
                               : '\0';
        endWithCompletion(kal_ResponseCode_OK_FaxWait, cause, true, false);
        return kNodePassOn;
    }
    if (state == kSentRec && c == lm::kEvtAudio)
        return handleRecordReply(reply());
    // A digit during the recording is part of the message, not a choice.
    if (inSession && c == lm::kEvtDigit && length >= 2 && isChoiceDigit(buffer[1])) {
        kallog(KAL_DEBUG, "VMNode %p: QLX reported choice digit '%c'", static_cast<void*>(this),
               buffer[1]);
        processDigit(buffer[1]);
        return kNodePassOn;
    }
    if (is_stop_event(c)) {
        kallog(KAL_DEBUG,
               "VMNode %p: Received stop character '%c' in state %d. Marking for re-handling.",
               static_cast<void*>(this), c, state);
        return kNodeRehandle;
    }
    kallog(KAL_DEVEL, "VMNode %p ignoring event %c in state %d", static_cast<void*>(this), c,
           state);
    return kNodePassOn;
}

void VMNode::rehandleEventWithBuffer(const char* buffer, int length, int, const char*) {
    NodeLock lock(*this);
    if (isTornDown() || length < 1)
        return;
    const char c = buffer[0];
    if (is_stop_event(c)) {
        kallog(KAL_DEBUG, "VMNode %p: Rehandling stop character '%c' in state %d",
               static_cast<void*>(this), c, state_.load());
        handleBareStopChar(c);
    } else {
        kallog(KAL_DEBUG, "VMNode %p: Unknown event %c received in rehandle during state %d",
               static_cast<void*>(this), c, state_.load());
    }
}

int VMNode::handleBareStopChar(char c) {
    const int state = state_.load();
    if (state == kSentPlay || state == kSentRec) {
        // As if the line monitor had answered already; its own answer,
        // when it comes, is then stale.
        Reply simulated;
        simulated.token = "0";
        simulated.status = lm::kAudioStopped;
        simulated.stopChar = c;
        if (state == kSentPlay) {
            kallog(KAL_DEBUG,
                   "VMNode %p: Stop character '%c' received in SENTPLAY. Simulating '^' message",
                   static_cast<void*>(this), c);
            handlePlaybackReply(simulated);
        } else {
            kallog(KAL_DEBUG,
                   "VMNode %p: Stop character '%c' received in SENTREC. Simulating '^' message",
                   static_cast<void*>(this), c);
            handleRecordReply(simulated);
        }
        lastplayreccount_ = -1;
    } else if (state == kComplete) {
        kallog(KAL_DEBUG, "VMNode %p: Stop character '%c' received in COMPLETE. Ignoring.",
               static_cast<void*>(this), c);
    } else if (state == kDialing) {
        // The dialing record's own reply settles it.
        kallog(KAL_DEBUG, "VMNode %p: Stop character '%c' received in DIALING. Ignoring.",
               static_cast<void*>(this), c);
    } else {
        kallog(KAL_DEBUG,
               "VMNode %p: Stop character '%c' received in other state %d. Terminating node.",
               static_cast<void*>(this), c, state);
        endWithCompletion(kal_ResponseCode_OK_NoAudio, c, true, true);
    }
    return 0;
}
