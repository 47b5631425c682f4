// The script menu: beep, pick a code, run the client's script, play what it
// returns, and again.

#include "nodes/script_node.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "core/device_table.h"
#include "lineio/timers.h"
#include "log/kallog.h"
#include "service/notifier.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

std::mutex runnumber_mutex;  // guards runnumber
int runnumber = 0;

void* me(ScriptNode* node) {
    return static_cast<void*>(node);
}

}  // namespace

int remove_temporary_audio(const std::string& path) {
    return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

const char* ScriptNode::stateName(int state) {
    switch (state) {
        case kCreated:
            return "CREATED";
        case kPicking:
            return "PICKING";
        case kAwaiting:
            return "AWAITING";
        case kPlaying:
            return "PLAYING";
        case kEnded:
            return "ENDED";
        default:
            return "UNKNOWN";
    }
}

int ScriptNode::nextRunNumber() {
    std::lock_guard lock(runnumber_mutex);
    return runnumber++;
}

// ---- entry points of the client requests ----

std::shared_ptr<ScriptNode> ScriptNode::startForResource(
    const std::string& serial, const std::string& token, const std::vector<std::string>& choices,
    const std::vector<std::string>& responseChoices, const std::optional<std::string>& prepicking) {
    std::vector<Choice> menu;
    menu.reserve(choices.size() + responseChoices.size());
    for (const auto& code : choices)
        menu.push_back({code, false});
    for (const auto& code : responseChoices)
        menu.push_back({code, true});
    auto node = createWithSerial(serial, token, std::move(menu), prepicking);
    node->begin();
    return node;
}

bool ScriptNode::scriptCompletedForResource(const std::string& serial, const std::string& token,
                                            int sequenceNumber,
                                            const std::optional<std::string>& responseAudio) {
    auto script = onLine<ScriptNode>(serial, kNodeTypeScript);
    if (!script)
        return false;
    script->scriptCompleted(token, sequenceNumber, responseAudio);
    return true;
}

std::shared_ptr<ScriptNode> ScriptNode::createWithSerial(const std::string& serial,
                                                         const std::string& token,
                                                         std::vector<Choice> choices,
                                                         std::optional<std::string> prepick) {
    auto node = create<ScriptNode>(serial, token, std::move(choices), std::move(prepick));
    if (!serial.empty())
        node->attachToDeviceTable(serial, kNodeTypeScript);
    return node;
}

ScriptNode::ScriptNode(CreateKey key, const std::string& serial, std::string token,
                       std::vector<Choice> choices, std::optional<std::string> prepick)
    : Node(key),
      token_(std::move(token)),
      choices_(std::move(choices)),
      prepick_(std::move(prepick)) {
    kallog(KAL_DEBUG, "ScriptNode %p being initialized for serial %s", me(this), serial.c_str());
}

void ScriptNode::setState(State next, const char* reason) {
    const int from = state_.exchange(next);
    logStateChange("ScriptNode", stateName(from), stateName(next), reason);
}

std::optional<ScriptNode::SessionEnd> ScriptNode::sessionEnd() {
    NodeLock lock(*this);
    return sessionEnd_;
}

// ---- the menu ----

void ScriptNode::begin() {
    NodeLock lock(*this);
    if (finished())
        return;
    beginLocked();
}

void ScriptNode::beginLocked() {
    kallog(KAL_DEBUG, "-begin called on ScriptNode %p (called %d times before)", me(this),
           loopcount_);
    ++loopcount_;

    if (prepick_) {
        if (loopcount_ == 1) {
            kallog(KAL_DEBUG,
                   "ScriptNode %p: Pre-picked code '%s'. Short circuiting to completedCode.",
                   me(this), prepick_->c_str());
            digitsReceived_ = prepick_->substr(0, kMaxDigits);
            completedCode();
        } else {
            kallog(KAL_DEBUG, "ScriptNode %p: Pre-picked has been completed. Ending scripting.",
                   me(this));
            // The client carries on with the call.
            endSession('#', false, false);
        }
        return;
    }
    if (loopcount_ > kMaxScripts) {
        kallog(KAL_DEBUG, "Maximum number of scripts reached. Terminating session.");
        endSession('\0', true, true);
        return;
    }
    if (!resetDeadmanTimeout(kPickDeadmanSeconds)) {
        kallog(KAL_DEBUG, "Failed to extend offhook timer. Terminating session.");
        endQuietly(true, "watchdog not extended");
        return;
    }
    // Not renewed by digits: the whole code must be in within the window.
    addTimerIn(
        kPickSeconds,
        [](Node& node, int round) { static_cast<ScriptNode&>(node).timeoutForPicking(round); },
        loopcount_);
    digitsReceived_.clear();
    if (!requestBeepOfType(kBeepType)) {
        kallog(KAL_DEBUG, "Beep could not be sent.");
        endWithFailure(kal_ResponseCode_ERR_InternalError, "beep not sent");
        return;
    }
    setState(kPicking, "beep sent");
}

void ScriptNode::completedCode() {
    cancel_timer(timerId());
    const Choice* picked = nullptr;
    for (const auto& choice : choices_) {
        kallog(KAL_DEVEL, "Comparing command '%s' with choice '%s'", digitsReceived_.c_str(),
               choice.code.c_str());
        if (digitsReceived_ == choice.code) {
            picked = &choice;
            break;
        }
    }
    if (picked == nullptr) {
        kallog(KAL_DEBUG, "ScriptNode %p: User selected invalid command '%s'", me(this),
               digitsReceived_.c_str());
        // Counts toward the limit: the menu comes back through begin.
        const int delay = static_cast<int>(random() % 2) + 1;
        addTimerIn(
            delay, [](Node& node, int round) { static_cast<ScriptNode&>(node).restart(round); },
            loopcount_);
        return;
    }

    kallog(KAL_DEBUG, "ScriptNode %p: User selected valid command '%s'", me(this),
           picked->code.c_str());
    const int run = nextRunNumber();
    currentRun_ = run;
    request_script_execution(token_, run, picked->code, serialText());
    if (!picked->returnsAudio) {
        beginLocked();
        return;
    }
    setState(kAwaiting, "script requested");
    if (!resetDeadmanTimeout(kRunDeadmanSeconds)) {
        kallog(KAL_DEBUG,
               "Failed to extend offhook timer for script timeout. Terminating session.");
        endQuietly(true, "watchdog not extended for the script");
        return;
    }
    addTimerIn(
        kRunSeconds,
        [](Node& node, int r) { static_cast<ScriptNode&>(node).timeoutForRunNumber(r); }, run);
}

void ScriptNode::timeoutForPicking(int round) {
    NodeLock lock(*this);
    if (finished())
        return;
    // A code completed while this timer was on its way to the lock.
    if (round != loopcount_ || state_ != kPicking) {
        kallog(KAL_DEVEL, "ScriptNode %p: Pick timer of round %d outdated. Ignoring.", me(this),
               round);
        return;
    }
    kallog(KAL_DEBUG, "User did not pick a script in time. Terminating session.");
    endQuietly(true, "nothing picked in time");
}

void ScriptNode::restart(int round) {
    NodeLock lock(*this);
    if (finished())
        return;
    if (round != loopcount_ || (state_ != kPicking && state_ != kCreated)) {
        kallog(KAL_DEVEL, "ScriptNode %p: Restart of round %d outdated. Ignoring.", me(this),
               round);
        return;
    }
    beginLocked();
}

void ScriptNode::timeoutForRunNumber(int run) {
    NodeLock lock(*this);
    if (finished())
        return;
    if (state_ == kAwaiting && currentRun_ == run) {
        currentRun_.reset();
        beginLocked();
        return;
    }
    kallog(KAL_DEBUG, "ScriptNode %p: Run number %d timed out, but we've moved on anyway", me(this),
           run);
}

// ---- the client's completion and the returned audio ----

void ScriptNode::scriptCompleted(const std::string& token, int sequenceNumber,
                                 const std::optional<std::string>& responseAudio) {
    NodeLock lock(*this);
    // An empty path is no file.
    const std::optional<std::string> audio =
        responseAudio && !responseAudio->empty() ? responseAudio : std::nullopt;
    if (finished()) {
        // Left alone: a node that is gone no longer owns anything.
        kallog(KAL_DEBUG, "ScriptNode %p: Ignoring script response because torn down", me(this));
        return;
    }
    const int state = state_.load();
    if (state != kAwaiting) {
        kallog(KAL_DEBUG, "ScriptNode %p: Ignoring script response due to state %d", me(this),
               state);
        if (audio)
            removeTemporary(*audio, Moment::kRefused);
        return;
    }
    if (token != token_ || currentRun_ != sequenceNumber) {
        kallog(KAL_DEBUG,
               "ScriptNode %p: Ignoring script response with token %s and sequence number %d "
               "because we are currently awaiting the results of token %s and sequence number "
               "%d.",
               me(this), token.c_str(), sequenceNumber, token_.c_str(), currentRun_.value_or(0));
        if (audio)
            removeTemporary(*audio, Moment::kRefused);
        return;
    }

    cancel_timer(timerId());
    currentRun_.reset();
    if (!audio) {
        kallog(KAL_DEBUG, "ScriptNode %p: Script completion noted. No audio to play back",
               me(this));
        nowPlaying_.reset();
        beginLocked();
        return;
    }
    kallog(KAL_DEBUG,
           "ScriptNode %p: Script completion noted. Playing back returned audio file: '%s'",
           me(this), audio->c_str());
    nowPlaying_ = audio;
    // The session token as the audio token: the reply is not checked for
    // freshness, any `^` while playing ends this playback.
    if (schedulePlayOf(*audio, kPlayFlags, kPlayStops, 0, token_)) {
        setState(kPlaying, "returned audio play sent");
        return;
    }
    kallog(KAL_WARN, "Couldn't playback returned audio file '%s' in ScriptNode %p", audio->c_str(),
           me(this));
    removeTemporary(*audio, Moment::kRefused);
    nowPlaying_.reset();
    endSession('\0', true, false);
}

void ScriptNode::removeTemporary(const std::string& path, Moment moment) {
    const int e = remove_temporary_audio(path);
    switch (moment) {
        case Moment::kRefused:
            if (e == 0)
                kallog(KAL_DEBUG, "ScriptNode %p: Removed temporary file '%s'", me(this),
                       path.c_str());
            else
                kallog(KAL_WARN, "ScriptNode %p: Couldn't remove temporary file '%s': %d-%s",
                       me(this), path.c_str(), e, strerror(e));
            break;
        case Moment::kAfterPlayback:
            if (e == 0)
                kallog(KAL_DEBUG, "ScriptNode %p: Removed temporary file '%s' after playback",
                       me(this), path.c_str());
            else
                kallog(KAL_WARN,
                       "ScriptNode %p: Couldn't remove (after playback) temporary file '%s': %d-%s",
                       me(this), path.c_str(), e, strerror(e));
            break;
        case Moment::kUponAbort:
            if (e == 0)
                kallog(KAL_DEBUG, "ScriptNode %p: Removed temporary file '%s' upon abort", me(this),
                       path.c_str());
            else
                kallog(KAL_WARN,
                       "ScriptNode %p: Couldn't remove (upon abort) temporary file '%s': %d-%s",
                       me(this), path.c_str(), e, strerror(e));
            break;
    }
}

int ScriptNode::handlePlaybackReply(const lm::lm_audio_response& reply) {
    if (nowPlaying_) {
        removeTemporary(*nowPlaying_, Moment::kAfterPlayback);
        nowPlaying_.reset();
    }
    switch (reply.status) {
        case lm::kAudioComplete:
            kallog(KAL_DEBUG, "ScriptNode %p: Audio playback complete. Restarting node.", me(this));
            beginLocked();
            return kNodeConsumed;
        case lm::kAudioInvalidFile:
        case lm::kAudioBusy:
            kallog(KAL_WARN,
                   "ScriptNode %p: QLX couldn't play audio. Reason code: %d. Continuing to next "
                   "prompt",
                   me(this), reply.status);
            beginLocked();
            return kNodeConsumed;
        case lm::kAudioStopped:
            // The event that stopped it arrives by itself and decides.
            return kNodeConsumed;
        default:
            kallog(KAL_WARN, "Unknown status %d reported by lm to ScriptNode %p", reply.status,
                   me(this));
            return kNodePassOn;
    }
}

void ScriptNode::abortScript() {
    cancel_timer(timerId());
    if (nowPlaying_) {
        removeTemporary(*nowPlaying_, Moment::kUponAbort);
        nowPlaying_.reset();
    }
    // Its completion, if it comes, finds the node no longer waiting.
    currentRun_.reset();
    beginLocked();
}

// ---- events ----

int ScriptNode::handleEventWithBuffer(const char* buffer, int length, int, const char*) {
    NodeLock lock(*this);
    if (finished() || length < 1)
        return kNodePassOn;
    const char c = buffer[0];
    const int state = state_.load();
    const char digit = c == lm::kEvtDigit && length > 1 ? buffer[1] : '\0';

    if (state == kPlaying && c == lm::kEvtAudio)
        return handlePlaybackReply(lm::parse_audio_response(buffer, static_cast<size_t>(length)));
    if (state == kPicking && digit != '\0') {
        if (digit == '#') {
            completedCode();
        } else if (digitsReceived_.size() < kMaxDigits) {
            digitsReceived_ += digit;
            kallog(KAL_DEBUG, "ScriptNode %p: Got digit '%c'", me(this), digit);
        }
        return kNodeConsumed;
    }
    if ((state == kAwaiting || state == kPlaying) && (digit == '*' || digit == '#')) {
        abortScript();
        return kNodeConsumed;
    }
    if (c == lm::kEvtOffHook)
        return kNodeRehandle;
    if (c == lm::kEvtReversal) {
        kallog(KAL_DEBUG, "ScriptNode %p: Got line reversal. Shutting down.", me(this));
        endSession(c, true, true);
        return kNodeConsumed;
    }
    kallog(KAL_DEBUG, "ScriptNode %p: don't care about event '%c'. Passing up.", me(this), c);
    return kNodePassOn;
}

void ScriptNode::rehandleEventWithBuffer(const char* buffer, int length, int, const char*) {
    NodeLock lock(*this);
    if (finished() || length < 1 || buffer[0] != lm::kEvtOffHook)
        return;
    // An extension was picked up: the call is someone else's now.
    endSession(lm::kEvtOffHook, true, true);
}

// ---- endings ----

void ScriptNode::endSession(char cause, bool onHook, bool hangUp) {
    if (!claimEnd())
        return;
    sessionEnd_ = SessionEnd{kal_ResponseCode_OK_NoAudio, cause, onHook};
    report_script_session_complete(token_, kal_ResponseCode_OK_NoAudio, cause, onHook ? 1 : 0,
                                   serialText());
    if (hangUp)
        requestHangup();
    char reason[64];
    snprintf(reason, sizeof reason, "session complete, cause '%c', %s", cause != '\0' ? cause : '-',
             onHook ? "on hook" : "left off hook");
    finishTeardown(reason);
}

void ScriptNode::endQuietly(bool hangUp, const char* reason) {
    if (!claimEnd())
        return;
    if (hangUp)
        requestHangup();
    finishTeardown(reason);
}

void ScriptNode::endWithFailure(const char* code, const char* reason) {
    if (!claimEnd())
        return;
    notify_cmd_failure(token_, code, serialNumber());
    finishTeardown(reason);
}

void ScriptNode::teardown() {
    if (!claimEnd())
        return;
    finishTeardown("torn down");
}

void ScriptNode::finishTeardown(const char* reason) {
    kallog(KAL_DEBUG, "ScriptNode %p: in teardown. Cancelling timers.", me(this));
    setState(kEnded, reason);
    // Without the node lock (see the class comment); a timer that fires all
    // the same finds the node finished.
    cancel_timer(timerId());
    Node::teardown();
}
