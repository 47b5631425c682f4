#include "nodes/fax_wait_node.h"

#include "lineio/timers.h"
#include "log/kallog.h"
#include "service/notifier.h"
#include "service/vocabulary.h"

using namespace kal;

const char* FaxWaitNode::stateName(int state) {
    switch (state) {
        case kCreated:
            return "created";
        case kWaiting:
            return "waiting";
        case kEnded:
            return "ended";
        default:
            return "unknown";
    }
}

std::shared_ptr<FaxWaitNode> FaxWaitNode::createWithSerial(const std::string& serial,
                                                           const std::string& token) {
    auto node = create<FaxWaitNode>(serial, token);
    node->attachToDeviceTable(serial, kNodeTypeFaxWait);
    return node;
}

FaxWaitNode::FaxWaitNode(CreateKey key, const std::string& serial, std::string token)
    : Node(key), token_(std::move(token)) {
    kallog(KAL_DEBUG, "FaxWaitNode %p being initialized for serial %s", static_cast<void*>(this),
           serial.c_str());
}

int FaxWaitNode::state() {
    NodeLock lock(*this);
    return state_;
}

void FaxWaitNode::setState(State next, const char* reason) {
    logStateChange("FaxWaitNode", stateName(state_), stateName(next), reason);
    state_ = next;
}

void FaxWaitNode::begin() {
    NodeLock lock(*this);
    Node::begin();
    kallog(KAL_DEBUG, "FaxWaitNode %p: Extending line monitor's timer by %d seconds.",
           static_cast<void*>(this), kDeadmanSeconds);
    if (!resetDeadmanTimeout(kDeadmanSeconds)) {
        kallog(KAL_ERR, "FaxWaitNode %p: Couldn't extend line monitor's timer. Nothing more to do.",
               static_cast<void*>(this));
        lock.unlock();
        teardown();
        return;
    }
    setState(kWaiting, "line monitor's timer extended");
    const int added = addTimerIn(
        kWaitSeconds, [](Node& node, int) { static_cast<FaxWaitNode&>(node).timerReturned(); });
    if (added != 1) {
        kallog(KAL_ERR, "FaxWaitNode %p: Couldn't register timer.", static_cast<void*>(this));
        lock.unlock();
        teardown();
        return;
    }
    timerset_ = true;
}

int FaxWaitNode::handleEventWithBuffer(const char* buffer, int length, int, const char*) {
    NodeLock lock(*this);
    // Ended but not yet torn down: the other thread is on its way to
    // teardown, and the call has been reported already.
    if (isTornDown() || state_ == kEnded) {
        kallog(KAL_DEBUG, "FaxWaitNode %p: Ignoring event because finished",
               static_cast<void*>(this));
        return kNodePassOn;
    }
    const char c = length > 0 ? buffer[0] : '\0';
    switch (c) {
        case 'J':
        case 'P':
        case 'a':
        case 'd':
        case 'f':
        case 'l':
        case 'p':
        case 'r':
            kallog(KAL_DEBUG, "FaxWaitNode %p: Event '%c' indicates end of responsibility",
                   static_cast<void*>(this), c);
            endFaxWaitWithNotification(true);
            lock.unlock();
            teardown();
            // Clients still hear of the event itself.
            return kNodePassOn;
        case 'c':
        case 'e':
            // The calling fax repeats its tone; it neither ends nor extends the wait.
            kallog(KAL_DEBUG, "FaxWaitNode %p: Discarding fax CNG tone received",
                   static_cast<void*>(this));
            return kNodeConsumed;
        default:
            return kNodePassOn;
    }
}

void FaxWaitNode::endFaxWaitWithNotification(bool notify) {
    kallog(KAL_DEBUG, "Node %p: Requesting hangup", static_cast<void*>(this));
    if (timerset_ && cancel_timer(timerId()) > 0)
        timerset_ = false;
    if (!requestHangup())
        kallog(KAL_DEBUG, "Node %p: failed to hang up", static_cast<void*>(this));
    kallog(KAL_DEBUG, "Node %p: Requested hangup - reporting completion", static_cast<void*>(this));
    setState(kEnded, notify ? "line event" : "wait timed out");
    if (notify && !token_.empty()) {
        report_vmnode_complete(token_, kal_ResponseCode_OK_FaxWaitEnd, kCompletionCause, 0,
                               serialNumber().value_or(""));
    }
}

void FaxWaitNode::timerReturned() {
    if (isTornDown()) {
        kallog(KAL_DEBUG, "FaxWaitNode %p: Already finished. Ignoring timer.",
               static_cast<void*>(this));
        return;
    }
    kallog(KAL_DEBUG, "FaxWaitNode %p: Timer expired. Hanging up call.", static_cast<void*>(this));
    NodeLock lock(*this);
    // An ending event got the lock first and has reported already.
    if (state_ == kEnded)
        return;
    // It has fired: there is nothing left to cancel.
    timerset_ = false;
    if (!token_.empty()) {
        report_vmnode_complete(token_, kal_ResponseCode_OK_FaxAbort, kCompletionCause, 0,
                               serialNumber().value_or(""));
    }
    endFaxWaitWithNotification(false);
    lock.unlock();
    teardown();
}

void FaxWaitNode::teardown() {
    // Without the node lock: teardown may come from device loss, with the
    // device-table lock held, and the node lock must never be taken after it.
    if (timerset_.exchange(false))
        cancel_timer(timerId());
    Node::teardown();
}
