#pragma once

// Records a conversation in progress on one line into a file the client
// names: optionally a pre-play announcement first, then the recording, then
// optionally a post-play announcement. With the append flag the new
// recording goes onto the end of an existing one, after a beep copied from
// the resources' tone450.raw. Ends with exactly one report under the
// client's token: a completion (report_crnode_complete) or a failure
// (notify_cmd_failure). It never hangs up: the call stays as it is.
//
// Thread-aware: `^` replies arrive on the line event thread, stop() on a
// client-service thread and the deadman renewal on the timer thread; each
// takes the node lock. deviceLost() runs with the device-table lock held and
// so never takes the node lock; ended_ makes sure one side alone reports.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "lineio/protocol.h"
#include "nodes/node.h"

class CRNode final : public Node {
  public:
    // Flag bits of the client's request.
    static constexpr uint32_t kFlagAppend = 0x1;  // append to the recording, after a beep
    static constexpr uint32_t kFlagACR = 0x2;     // end audio on the longer stop string
    // Line events that end every play and the record.
    static constexpr const char kStopString[] = "pl";
    static constexpr const char kACRStopString[] = "ldbp";
    // Stop characters after which the post-play is not played.
    static constexpr const char kNoPostPlayStops[] = "pdbl";
    // Line-monitor flags of each command; 0x40 makes the record append.
    static constexpr int kPrePlayFlags = 0;
    static constexpr int kRecordFlags = 0x18C;
    static constexpr int kRecordAppendFlags = 0x1CC;
    static constexpr int kPostPlayFlags = 0x400;
    // The line monitor's watchdog while recording, renewed every half.
    static constexpr int kRecordDeadmanSeconds = 120;

    enum State : int {
        kIdle = 0,
        kPrePlay = 1,    // pre-play announcement sent
        kRecording = 2,  // record command sent
        kPostPlay = 3,   // post-play announcement sent
        kCancelled = 4,  // stopped during the pre-play: waiting for it to end
    };
    static const char* stateName(int state);

    // What the client request to start a recording does once its
    // arguments are checked (serial, token and recFile present): makes the
    // node, attaches it to the line `serial` and begins. Whether the line
    // exists or is free is the node's to report, not the caller's.
    static std::shared_ptr<CRNode> beginForResource(const std::string& serial,
                                                    const std::string& token,
                                                    const std::string& recFile,
                                                    const std::optional<std::string>& prePlay,
                                                    const std::optional<std::string>& postPlay,
                                                    uint32_t flags);
    // What the client request to stop a recording does: stops the
    // call-recording node on the line `serial`. False when the line has no
    // such node (the caller answers no-resource and touches no file).
    static bool stopForResource(const std::string& serial);

    // Makes the node and attaches it to the line `serial` (none when empty).
    static std::shared_ptr<CRNode> createWithSerial(const std::string& serial,
                                                    const std::string& token,
                                                    const std::string& recFile,
                                                    const std::optional<std::string>& prePlay,
                                                    const std::optional<std::string>& postPlay,
                                                    uint32_t flags);

    CRNode(CreateKey key, const std::string& serial, std::string token, std::string recFile,
           std::optional<std::string> prePlay, std::optional<std::string> postPlay, uint32_t flags);

    bool needLock() const override { return true; }
    // Plays the pre-play, or starts recording when there is none.
    void begin() override;
    // Acts on `^` replies; every other event passes on to clients.
    int handleEventWithBuffer(const char* buffer, int length, int qlx, const char* serial) override;
    // The client's stop: cancels a recording, or lets a pre-play finish and
    // skips the recording.
    void stop();
    // Device-table lock held for both. Unless a reply has ended the node
    // already, reports what was recorded so far and tears down.
    void beforeDeviceLost() override;
    void deviceLost() override;
    void teardown() override;

    const std::string& token() const { return token_; }
    const char* stopString() const { return acr_ ? kACRStopString : kStopString; }
    int state() const { return state_.load(); }

  private:
    void setState(State next, const char* reason);

    // Each ending path calls one of these with the node lock held: the
    // first end of the node reports (or not) and tears down, later ones do
    // nothing. `lock` is released before the teardown.
    void endWithCompletion(const char* code, char cause, NodeLock& lock);
    void endWithFailure(const char* code, NodeLock& lock);
    void endSilently(NodeLock& lock);
    bool finished() const { return ended_.load() || isTornDown(); }

    // Node lock held for all below.
    void appendBeep();
    bool beginRecording();
    void beginPostPlay(NodeLock& lock);
    int handlePreplayComplete(const lm::lm_audio_response& reply, NodeLock& lock);
    int handleRecordComplete(const lm::lm_audio_response& reply, NodeLock& lock);
    int handlePostplayComplete(const lm::lm_audio_response& reply, NodeLock& lock);
    int handleCancelledPreplayComplete(NodeLock& lock);
    // The code of a recording that ended: an empty one is deleted and is
    // no audio.
    const char* codeForRecording();
    std::string reportSerial() const { return serialNumber().value_or(""); }

    const std::string token_;
    const std::string recFile_;
    const std::optional<std::string> prePlay_;
    const std::optional<std::string> postPlay_;
    const bool append_;
    const bool acr_;
    // Written under the node lock; read without it by deviceLost.
    std::atomic<int> state_{kIdle};
    bool cancelled_ = false;  // node lock: stopped during the pre-play
    // Set by whichever path ends the node first; that path alone reports.
    std::atomic<bool> ended_{false};
};
