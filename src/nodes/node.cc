#include "nodes/node.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "core/device_table.h"
#include "lineio/protocol.h"
#include "lineio/request_queue.h"
#include "log/kallog.h"

using namespace kal;

namespace {

std::mutex audiotoken_mutex;  // guards audiotoken
int audiotoken = Node::kWrappedAudioToken;

}  // namespace

Node::Node(CreateKey) {}

Node::~Node() {
    // No timer calls here: the last reference may be dropped while the
    // timer lock is held (a cancelled release timer).
    kallog(KAL_DEBUG, "Deallocating Node %p", static_cast<void*>(this));
}

int Node::getNextAudioToken() {
    std::lock_guard lock(audiotoken_mutex);
    ++audiotoken;
    if (audiotoken > kLastAudioToken)
        audiotoken = kWrappedAudioToken;
    return audiotoken;
}

std::optional<std::string> Node::lineSerial() const {
    DeviceTableLock lock(kTableRead, teardownWithoutLocking_);
    if (const qlx* record = device_.load())
        return record->serial;
    return replacedOnSerial_;
}

std::optional<std::string> Node::serialNumber() const {
    return lineSerial();
}

bool Node::isNodeOf(const qlx& record) const {
    // Same owner: the record's weak link is to this very node.
    const std::weak_ptr<const Node> me = weak_from_this();
    return !record.node.owner_before(me) && !me.owner_before(record.node) && !record.node.expired();
}

void Node::attachToDeviceTable(const std::string& serial, int type, bool teardownExisting) {
    DeviceTableLock lock(kTableChange);
    device_ = nullptr;
    qlx* record = line_by_serial(serial);
    if (record == nullptr)
        return;
    device_ = record;
    replacedOnSerial_.reset();
    std::shared_ptr<LineNode> existing = record->node.lock();
    if (auto* previous = dynamic_cast<Node*>(existing.get()); previous && previous != this) {
        if (teardownExisting) {
            previous->forceTeardown();
        } else {
            previous->detachFrom(*record);
        }
    }
    record->node = weak_from_this();
    record->nodeType = type;
}

void Node::detachFrom(const qlx& record) {
    // It keeps commanding its line by serial, and its own teardown will
    // find the record is not its.
    replacedOnSerial_ = record.serial;
    device_ = nullptr;
    scheduleDetachedCheck(kDetachedChecks);
}

void Node::scheduleDetachedCheck(int checksLeft) {
    add_timer_in(
        kReleaseDelaySeconds,
        [weak = weak_from_this()](TimerOwner, int left) {
            if (std::shared_ptr<Node> node = weak.lock())
                node->detachedCheck(left);
        },
        kReleaseTimerId, checksLeft);
}

void Node::detachedCheck(int checksLeft) {
    if (isTornDown())
        return;
    const int pending = pending_timer_count(timerId());
    if (pending > 0 && checksLeft > 1) {
        kallog(KAL_DEBUG, "Node %p: Detached from its line with %d timer(s) of its own pending.",
               static_cast<void*>(this), pending);
        scheduleDetachedCheck(checksLeft - 1);
        return;
    }
    kallog(KAL_DEBUG, "Node %p: Detached from its line and done with it. Tearing down.",
           static_cast<void*>(this));
    teardown();
}

void Node::setDevicePtr(qlx* record) {
    kallog(KAL_DEBUG, "Node %p: Resetting device pointer from %p to %p", static_cast<void*>(this),
           static_cast<void*>(device_.load()), static_cast<void*>(record));
    device_ = record;
}

int Node::handleEventWithBuffer(const char*, int, int, const char*) {
    return kNodePassOn;
}

void Node::rehandleEventWithBuffer(const char*, int, int, const char*) {}

void Node::beforeDeviceLost() {
    kallog(KAL_DEBUG, "Node %p notified of loss of device", static_cast<void*>(this));
    teardownWithoutLocking_ = true;
}

void Node::deviceLost() {
    teardown();
}

void Node::forceTeardown() {
    teardownWithoutLocking_ = true;
    teardown();
}

void Node::teardown() {
    kallog(KAL_DEBUG, "Tearing down Node %p with device ptr %p", static_cast<void*>(this),
           static_cast<void*>(device_.load()));
    {
        DeviceTableLock lock(kTableChange, teardownWithoutLocking_);
        tornDown_ = true;
        qlx* record = device_.load();
        if (record != nullptr && isNodeOf(*record)) {
            record->node.reset();
            device_ = nullptr;
        } else {
            kallog(KAL_DEBUG, "Node %p: Warning: not clearing ptr from device table on teardown.",
                   static_cast<void*>(this));
        }
    }
    if (cancelTimers_)
        cancel_timer(timerId());
    delayedRelease();
}

void Node::delayedRelease() {
    std::shared_ptr<Node> reference;
    {
        std::lock_guard lock(selfMutex_);
        reference = std::move(self_);
    }
    // A second teardown: the creator's reference is already with the first
    // release timer, so this one holds a reference of its own.
    if (!reference)
        reference = shared_from_this();
    add_timer_in(
        kReleaseDelaySeconds,
        [reference = std::move(reference)](TimerOwner, int) mutable {
            // Taken out of the timer so that the node is freed here, when
            // the callback returns, and not later under the timer lock.
            std::shared_ptr<Node> node = std::move(reference);
            node->deathTimerFired();
        },
        kReleaseTimerId, 0);
    kallog(KAL_DEBUG, "Node %p: Established release timer to fire in %d seconds",
           static_cast<void*>(this), kReleaseDelaySeconds);
}

void Node::deathTimerFired() {
    kallog(KAL_DEBUG, "Node %p: Release time has arrived. Releasing.", static_cast<void*>(this));
}

void Node::lockNode() {
    if (!needLock())
        return;
    try {
        nodelock_.lock();
    } catch (const std::system_error&) {
        kallog(KAL_WARN, "Couldn't lock node lock in node %p", static_cast<void*>(this));
    }
}

void Node::unlockNode() {
    if (needLock())
        nodelock_.unlock();
}

bool Node::isAudioFileEmpty(const std::string& path) const {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        const int e = errno;
        kallog(KAL_WARN, "Node %p: couldn't stat recFile (%s) - got %d (%s)",
               static_cast<const void*>(this), path.c_str(), e, strerror(e));
        return true;
    }
    if (st.st_size == 0) {
        kallog(KAL_WARN, "Node %p: recFile is empty at path %s", static_cast<const void*>(this),
               path.c_str());
        return true;
    }
    return false;
}

void Node::trashEmptyAudioFile(const std::string& path) const {
    if (::unlink(path.c_str()) != 0) {
        const int e = errno;
        kallog(KAL_WARN, "Node %p: couldn't unlink recFile (%s) - got %d (%s)",
               static_cast<const void*>(this), path.c_str(), e, strerror(e));
    }
}

int Node::addTimerIn(int seconds, std::function<void(Node& node, int data)> fire, int data) {
    return add_timer_in(
        seconds,
        [weak = weak_from_this(), fire = std::move(fire)](TimerOwner, int d) {
            if (std::shared_ptr<Node> node = weak.lock())
                fire(*node, d);
        },
        timerId(), data);
}

bool Node::queueToDoItem(std::unique_ptr<lm_todo> todo) {
    std::optional<std::string> serial = lineSerial();
    if (!serial || serial->empty())
        return false;
    todo->serial = std::move(*serial);
    add_todo(std::move(todo));
    return true;
}

bool Node::requestSimpleTodoItem(int type, const char* description) {
    kallog(KAL_DEBUG, "Node %p: Asking line monitor to %s (%d).", static_cast<void*>(this),
           description, type);
    auto todo = std::make_unique<lm_todo>();
    todo->type = type;
    return queueToDoItem(std::move(todo));
}

bool Node::requestHangup() {
    return requestSimpleTodoItem(REQ_HANGUP, "hang up");
}

bool Node::cancelAudio() {
    return requestSimpleTodoItem(REQ_CANCEL_AUDIO, "cancel audio");
}

bool Node::requestBeepOfType(int type) {
    kallog(KAL_DEBUG, "Node %p: Requesting beep of type: %d", static_cast<void*>(this), type);
    auto todo = std::make_unique<lm_todo>();
    todo->type = REQ_BEEP;
    todo->value = type;
    return queueToDoItem(std::move(todo));
}

bool Node::schedulePlayOf(const std::string& path, int flags, const std::string& stopString,
                          int postPlayPause, const std::string& token) {
    kallog(KAL_DEBUG, "Node %p: Playing '%s' with token '%s'", static_cast<void*>(this),
           path.c_str(), token.c_str());
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        const int e = errno;
        kallog(KAL_WARN, "Couldn't stat playback file '%s' in Node %p. %d-%s", path.c_str(),
               static_cast<void*>(this), e, strerror(e));
        return false;
    }
    lm::lm_audio_request ar;
    ar.path = path;
    ar.stopString = stopString;
    ar.token = token;
    ar.flags = flags;
    ar.length = lm::play_length_seconds(st.st_size);
    ar.postPlayPause = postPlayPause;
    kallog(KAL_DEBUG, "Node %p: playback length approx %d seconds", static_cast<void*>(this),
           ar.length);
    auto todo = std::make_unique<lm_todo>();
    todo->type = REQ_PLAY;
    todo->data = lm::build_audio_request(ar);
    todo->token = token;
    return queueToDoItem(std::move(todo));
}

bool Node::scheduleRecordInto(const std::string& path, int flags, const std::string& stopString,
                              int length, const std::string& token,
                              const std::string& firstDialing) {
    kallog(KAL_DEBUG, "Node %p: Requesting record start into %s with token %s.",
           static_cast<void*>(this), path.c_str(), token.c_str());
    lm::lm_audio_request ar;
    ar.path = path;
    ar.stopString = stopString;
    ar.token = token;
    ar.firstDialing = firstDialing;
    ar.flags = flags;
    ar.length = length;
    auto todo = std::make_unique<lm_todo>();
    todo->type = REQ_RECORD;
    todo->data = lm::build_audio_request(ar);
    todo->token = token;
    return queueToDoItem(std::move(todo));
}

bool Node::placeCallTo(const std::string& number, const std::string& token) {
    kallog(KAL_DEBUG, "Node %p: Placing call to %s with token %s", static_cast<void*>(this),
           number.c_str(), token.c_str());
    lm::lm_call_request call;
    call.token = token;
    call.number = number;
    auto todo = std::make_unique<lm_todo>();
    todo->type = REQ_CALL;
    todo->data = lm::build_call_request(call);
    return queueToDoItem(std::move(todo));
}

bool Node::resetDeadmanTimeout(int seconds) {
    kallog(KAL_DEBUG, "Node %p: Asking line monitor to extend timeout by %d seconds.",
           static_cast<void*>(this), seconds);
    auto todo = std::make_unique<lm_todo>();
    todo->type = REQ_SET_DEADMAN;
    todo->deadman = seconds;
    return queueToDoItem(std::move(todo));
}

void Node::extendTimerWithLocking(bool lock, int seconds) {
    if (lock)
        lockNode();
    if (!isTornDown()) {
        kallog(KAL_DEBUG, "Node %p: Extending deadman timer by %d seconds",
               static_cast<void*>(this), seconds);
        if (resetDeadmanTimeout(seconds)) {
            // Half the interval: the renewal always reaches the line monitor
            // well before its watchdog runs out.
            addTimerIn(
                seconds / 2, [](Node& node, int s) { node.extendTimerWithLocking(true, s); },
                seconds);
            cancelTimers_ = true;
        } else {
            kallog(KAL_WARN, "Couldn't extend deadman timer");
        }
    }
    if (lock)
        unlockNode();
}

void Node::logStateChange(const char* className, const char* from, const char* to,
                          const char* reason) const {
    kallog(KAL_DEVEL, "%s %p: state %s -> %s (%s)", className, static_cast<const void*>(this), from,
           to, reason);
}

std::shared_ptr<LineNode> Node::attachedNode(const std::string& serial, int type) {
    DeviceTableLock lock(kTableRead);
    const qlx* record = line_by_serial(serial);
    if (record && record->nodeType == type)
        return record->node.lock();
    return nullptr;
}
