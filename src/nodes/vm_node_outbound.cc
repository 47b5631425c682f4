// The outbound session: dialing while the line monitor analyses the dial
// sound, and probing after each OGM whether the callee is still talking.

#include <sys/stat.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/paths.h"
#include "log/kallog.h"
#include "nodes/vm_node.h"
#include "service/notifier.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

// What the call came to, as clients are told it.
constexpr char kOutcomeAnswered[] = "OK";
constexpr char kOutcomeBusy[] = "BUSY";
constexpr char kOutcomeNoDialTone[] = "NO DIALTONE";
constexpr char kOutcomeNoAnswer[] = "AUDIO_COMPLETE";
constexpr char kOutcomeStopChar[] = "STOPCHAR";

// Sound-analysis stop characters of the dialing record.
constexpr char kStopSilence = 's';
constexpr char kStopQuiet = 'q';
constexpr char kStopBusy = 'b';
constexpr char kStopNoDialTone = 'X';

// At DEBUG and above every capture gets a name of its own and is kept for
// the developer; below, one name is reused.
std::string capture_file(std::string (*plain)(), std::string (*timed)(long)) {
    if (kalgetcurrentloglevel() >= static_cast<unsigned>(KAL_DEBUG))
        return timed(static_cast<long>(kal::now()));
    return plain();
}

}  // namespace

bool VMNode::isDialTestMode() {
    struct stat st {};
    return ::stat(vmntest_marker().c_str(), &st) == 0;
}

void VMNode::endWithCallOutcome(const char* code, const char* text) {
    if (claimReport())
        report_call_placed(token_, code, text, serialText());
    requestHangup();
    teardown();
}

void VMNode::beginDialing() {
    takeAudioToken();
    const std::string file = capture_file(dialsound_capture, dialsound_capture_at);
    kallog(KAL_DEBUG, "Capturing dial sound into file: %s", file.c_str());
    ::unlink(file.c_str());

    int flags = (special_ & kSpecialAltDialFlags) ? kDialFlagsAlt : kDialFlags;
    if (isDialTestMode())
        flags += kTestModeFlags;
    const char* stops = (special_ & kSpecialProbe) ? kDialStopsProbe : kDialStops;
    if (scheduleRecordInto(file, flags, stops, kDialRecordSeconds, temptoken_, *dial_)) {
        setState(kDialing, "dial record sent");
        return;
    }
    endWithFailure(kal_ResponseCode_ERR_NoResource, false);
}

int VMNode::handleDialingRecordReply(const Reply& reply) {
    if (!isFresh(reply))
        return kNodeConsumed;
    void* self = static_cast<void*>(this);
    switch (reply.status) {
        case lm::kAudioBusy:
            kallog(KAL_WARN, "VMNode %p: QLX couldn't record for sndanal. Already busy.", self);
            endWithFailure(kal_ResponseCode_ERR_ResourceBusy, true);
            break;
        case lm::kAudioInvalidFile:
            // Names the ICM, not the capture file, as it always has.
            kallog(KAL_WARN, "VMNode %p: QLX couldn't record for sndanal. Invalid file '%s'.", self,
                   recFile_.value_or("(null)").c_str());
            endWithFailure(kal_ResponseCode_ERR_InvalidFile, true);
            break;
        case lm::kAudioComplete:
            // The whole 45 seconds: a signal seen on the way counts as an answer.
            if (detectedSignal_ == 0) {
                kallog(KAL_DEBUG, "VMNode %p: No answer. Report and shutdown.", self);
                endWithCallOutcome(kal_ResponseCode_Call_NoAnswer, kOutcomeNoAnswer);
            } else {
                kallog(KAL_DEBUG, "VMNode %p: Presumed answer. Starting playback.", self);
                report_call_placed(token_, kal_ResponseCode_Call_OK, kOutcomeAnswered,
                                   serialText());
                beginPlayback();
            }
            break;
        case lm::kAudioStopped:
            switch (reply.stopChar) {
                case kStopQuiet:
                case kStopSilence:
                    kallog(KAL_DEBUG, "VMNode %p: Detected silence. Starting playback", self);
                    report_call_placed(token_, kal_ResponseCode_Call_OK, kOutcomeAnswered,
                                       serialText());
                    beginPlayback();
                    break;
                case lm::kEvtSignal:
                    kallog(KAL_DEBUG, "VMNode %p: QLX received signal detect. Starting playback",
                           self);
                    report_call_placed(token_, kal_ResponseCode_Call_OK, kOutcomeAnswered,
                                       serialText());
                    beginPlayback();
                    break;
                case kStopBusy:
                    kallog(KAL_DEBUG, "VMNode %p: Got busy signal.", self);
                    endWithCallOutcome(kal_ResponseCode_Call_Busy, kOutcomeBusy);
                    break;
                case kStopNoDialTone:
                    kallog(KAL_DEBUG, "VMNode %p: Got no dialtone signal.", self);
                    endWithCallOutcome(kal_ResponseCode_Call_NoDialTone, kOutcomeNoDialTone);
                    break;
                default:
                    kallog(KAL_DEBUG,
                           "VMNode %p: Dialing ended with unusual exit char '%c'. End of attempt.",
                           self, reply.stopChar);
                    endWithCallOutcome(kal_ResponseCode_Call_Error, kOutcomeStopChar);
                    break;
            }
            break;
        default:
            break;
    }
    return kNodeConsumed;
}

void VMNode::initProbe() {
    if (probeTimer_ != kProbeUnset)
        return;
    probeTimer_ = kal::now() + kProbeWindowSeconds;
    kallog(KAL_DEBUG, "VMNode %p: Initializing probe deadline to: %ld", static_cast<void*>(this),
           static_cast<long>(probeTimer_));
}

bool VMNode::allowProbe() {
    if (probeTimer_ == kProbeUnset) {
        initProbe();
        return true;
    }
    if (probeTimer_ == kProbeUsedUp) {
        kallog(KAL_DEBUG, "VMNode %p: allowProbe called too many times.", static_cast<void*>(this));
        return false;
    }
    if (probeTimer_ <= kal::now()) {
        // One last re-probe past the deadline.
        kallog(KAL_DEBUG, "VMNode %p: allowProbe called within probe window. Last time.",
               static_cast<void*>(this));
        probeTimer_ = kProbeUsedUp;
        return true;
    }
    kallog(KAL_DEBUG, "VMNode %p: allowProbe called within probe window.",
           static_cast<void*>(this));
    return true;
}

void VMNode::beginProbe() {
    takeAudioToken();
    detectedSignal_ = 0;
    const std::string file = capture_file(probesound_capture, probesound_capture_at);
    kallog(KAL_DEBUG, "Capturing probe sound into file: %s", file.c_str());
    ::unlink(file.c_str());

    const int flags = kProbeFlags + (isDialTestMode() ? kTestModeFlags : 0);
    if (scheduleRecordInto(file, flags, kProbeStops, kProbeRecordSeconds, temptoken_, "")) {
        setState(kProbing, "probe record sent");
        return;
    }
    endWithFailure(kal_ResponseCode_ERR_NoResource, false);
}

int VMNode::handleProbingRecordReply(const Reply& reply) {
    if (!isFresh(reply))
        return kNodeConsumed;
    void* self = static_cast<void*>(this);
    switch (reply.status) {
        case lm::kAudioBusy:
            kallog(KAL_WARN, "VMNode %p: QLX couldn't record for probe. Already busy.", self);
            endWithFailure(kal_ResponseCode_ERR_ResourceBusy, true);
            break;
        case lm::kAudioInvalidFile:
            kallog(KAL_WARN, "VMNode %p: QLX couldn't record for probe. Invalid file '%s'.", self,
                   recFile_.value_or("(null)").c_str());
            endWithFailure(kal_ResponseCode_ERR_InvalidFile, true);
            break;
        case lm::kAudioStopped:
            kallog(KAL_DEBUG, "VMNode %p: Probing ended with stopchar '%c'. End of attempt.", self,
                   reply.stopChar);
            endWithCallOutcome(kal_ResponseCode_Call_Error, kOutcomeStopChar);
            break;
        case lm::kAudioComplete:
            if (detectedSignal_ != 0 && allowProbe()) {
                // Still talking over the OGM: play it again, however often
                // it has been played, and probe once more.
                kallog(KAL_DEBUG,
                       "VMNode %p: Signal was detected during probe. Defeat loopcount checks. "
                       "Re-probe.",
                       self);
                loopcount_ = 1;
                beginPlayback();
            } else {
                kallog(KAL_DEBUG,
                       "VMNode %p: Callee silent during probe. Success. Report and shutdown.",
                       self);
                endWithCompletion(kal_ResponseCode_OK_NoAudio, '#', true, false);
            }
            break;
        default:
            break;
    }
    return kNodeConsumed;
}
