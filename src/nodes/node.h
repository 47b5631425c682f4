#pragma once

// The common base of every call-handling node: one call on one line.
//
// A node attaches itself to an adapter's device record, receives that line's
// events from the line event thread, turns its wishes into request records
// for the line monitor (the line commands below), and when it is done tears
// itself down: it leaves the device record and is freed 30 seconds later, so
// that an event or a `^` reply already on its way still finds it (handlers
// check isTornDown).
//
// Ownership. Every node lives in a shared_ptr from birth (Node::create). It
// holds one reference to itself, the creator's, from creation until teardown
// hands it to the delayed-release timer, whose firing drops it. The device
// record holds only a weak link; the line event thread holds a reference
// across each call into the node; the node's own timers hold weak links, so
// they never keep it alive and never reach a freed node. A node that is
// never torn down is never freed; one that another node replaced on its line
// without a teardown is torn down by its detached checks.
//
// Thread-aware, not thread-safe: node methods run on the line event thread
// (events), on client-service threads (requests) and on the timer thread
// (timers). A class reached from several threads answers true to needLock
// and brackets its work with the node lock. Lock order: the node lock, then
// the device-table lock, then the intra-process lock; the timer and log
// locks are leaves.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "core/line_node.h"
#include "lineio/timers.h"

struct qlx;
struct lm_todo;

// Node types kept in the device record's nodeType.
enum NodeType : int {
    kNodeTypeVoicemail = 1,
    kNodeTypeCallRecording = 2,
    kNodeTypeFaxWait = 3,
    kNodeTypeScript = 4,
    kNodeTypeVoicemailCheck = 5,
};

class Node : public LineNode, public std::enable_shared_from_this<Node> {
  protected:
    // Only Node::create makes one, so that no node exists outside a
    // shared_ptr. Subclass constructors take it first and pass it on.
    class CreateKey {
        friend class Node;
        CreateKey() = default;
    };

  public:
    // A torn-down node is freed this long after its teardown.
    static constexpr int kReleaseDelaySeconds = 30;
    // A node replaced on its line without a teardown is looked at this many
    // times, kReleaseDelaySeconds apart, before it is torn down regardless
    // of timers of its own still pending (see scheduleDetachedCheck).
    static constexpr int kDetachedChecks = 5;
    // The id of every release timer. Not a node's address, so that
    // cancelling a node's own timers never cancels its release.
    static constexpr TimerOwner kReleaseTimerId = 66;
    // Audio tokens run 101..1000, then 100 again.
    static constexpr int kFirstAudioToken = 101;
    static constexpr int kLastAudioToken = 1000;
    static constexpr int kWrappedAudioToken = 100;

    // Makes a T (constructed from CreateKey and `args`) that holds its own
    // creator's reference until its delayed release.
    template <class T, class... A>
    static std::shared_ptr<T> create(A&&... args) {
        static_assert(std::is_base_of_v<Node, T>, "nodes derive from Node");
        auto node = std::make_shared<T>(CreateKey{}, std::forward<A>(args)...);
        node->keepSelf(node);
        return node;
    }

    // The node of class T on the line `serial`, when the line has one that
    // attached itself as `type`; else null. Takes the device-table lock.
    template <class T>
    static std::shared_ptr<T> onLine(const std::string& serial, int type) {
        return std::dynamic_pointer_cast<T>(attachedNode(serial, type));
    }

    explicit Node(CreateKey);
    ~Node() override;
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // The next audio token, shared by every node of the process.
    static int getNextAudioToken();
    // The serial of this node's line, or nullopt when it has none.
    std::optional<std::string> serialNumber() const;
    bool isTornDown() const { return tornDown_.load(); }
    // Whether the class is reached from several threads and so brackets its
    // work with the node lock. No in the base.
    virtual bool needLock() const { return false; }

    // Makes this node the one on the line whose serial is `serial` and
    // records `type` there. A node already on the line is torn down when
    // `teardownExisting`, else simply replaced. An unknown serial leaves the
    // node without a line: every line command then fails.
    void attachToDeviceTable(const std::string& serial, int type, bool teardownExisting = false);
    // Set when the caller holds the device-table lock: teardown and
    // serialNumber then do not take it. Never cleared.
    void setTeardownWithoutLocking(bool withoutLocking) {
        teardownWithoutLocking_ = withoutLocking;
    }

    // LineNode. The base answers no event.
    int handleEventWithBuffer(const char* buffer, int length, int qlx, const char* serial) override;
    void rehandleEventWithBuffer(const char* buffer, int length, int qlx,
                                 const char* serial) override;
    void setDevicePtr(qlx* record) override;
    void beforeDeviceLost() override;
    void deviceLost() override;

    virtual void begin() {}
    // Tears down a node that another is taking the line from. Called with
    // the device-table lock held (attachToDeviceTable), so the base marks
    // teardownWithoutLocking first.
    virtual void forceTeardown();
    // Leaves the line and schedules the delayed release. Subclasses end
    // their own teardown with the base's.
    virtual void teardown();
    // The release timer has fired: the node is freed as the timer lets go.
    void deathTimerFired();

    // A recording that cannot be examined or has no bytes counts as empty.
    bool isAudioFileEmpty(const std::string& path) const;
    void trashEmptyAudioFile(const std::string& path) const;

    // Line commands. Each queues one request for this node's line and
    // answers true when queued; without a line nothing is sent.
    bool requestSimpleTodoItem(int type, const char* description);
    bool requestHangup();
    bool cancelAudio();
    bool requestBeepOfType(int type);
    // Plays `path`; the line monitor is told its length, rounded up to whole
    // seconds. Fails (sending nothing) when the file cannot be examined.
    bool schedulePlayOf(const std::string& path, int flags, const std::string& stopString,
                        int postPlayPause, const std::string& token);
    // Records into `path` for at most `length` seconds, after dialing
    // `firstDialing` when it is not empty.
    bool scheduleRecordInto(const std::string& path, int flags, const std::string& stopString,
                            int length, const std::string& token,
                            const std::string& firstDialing = "");
    bool placeCallTo(const std::string& number, const std::string& token);
    bool resetDeadmanTimeout(int seconds);
    // Renews the line monitor's deadman now and every seconds / 2 from then
    // on, until the node is torn down. `lock`: take the node lock.
    void extendTimerWithLocking(bool lock, int seconds);

    // The id under which this node's own timers are kept.
    TimerOwner timerId() const { return timer_owner(this); }

  protected:
    static std::shared_ptr<LineNode> attachedNode(const std::string& serial, int type);

    // The node lock; does nothing for classes that answer no to needLock.
    void lockNode();
    void unlockNode();

    // Holds the node lock for a scope; unlock() lets go early, as when a
    // handler must call teardown after releasing it.
    class NodeLock {
      public:
        explicit NodeLock(Node& node) : node_(node) { node_.lockNode(); }
        ~NodeLock() {
            if (locked_)
                node_.unlockNode();
        }
        NodeLock(const NodeLock&) = delete;
        NodeLock& operator=(const NodeLock&) = delete;
        void unlock() {
            if (std::exchange(locked_, false))
                node_.unlockNode();
        }

      private:
        Node& node_;
        bool locked_ = true;
    };

    // Adds a one-shot timer under timerId(): `fire` runs on the timer
    // thread with the node kept alive for the call, and not at all once the
    // node has been freed. Returns what add_timer_in returns.
    int addTimerIn(int seconds, std::function<void(Node& node, int data)> fire, int data = 0);

    // Queues `todo` for this node's line: fills in the line's serial, or
    // answers false (sending nothing) when the node has no line.
    bool queueToDoItem(std::unique_ptr<lm_todo> todo);

    // The one log line of a state change, for subclasses' setState:
    // "<class> %p: state <from> -> <to> (<reason>)" at DEVEL.
    void logStateChange(const char* className, const char* from, const char* to,
                        const char* reason) const;

  private:
    void keepSelf(std::shared_ptr<Node> self) { self_ = std::move(self); }
    // Another node has taken this one's line without tearing it down: it
    // keeps commanding its line by serial. Device-table lock held.
    void detachFrom(const qlx& record);
    // A detached node hears its line no more, so it would never end its
    // session and never be freed. Only its own pending timers can still
    // make it act, and those are left to run: it is torn down (and freed
    // kReleaseDelaySeconds later) at the first check that finds none of
    // them pending, or at the last check in any case, so that an endless
    // renewal cannot keep it either. The check timer links weakly and runs
    // under kReleaseTimerId, so the node's own cancellations never drop it.
    void scheduleDetachedCheck(int checksLeft);
    void detachedCheck(int checksLeft);
    void delayedRelease();
    // Whether `record` links back to this node. Device-table lock held.
    bool isNodeOf(const qlx& record) const;
    // Serial of the line, read as serialNumber reads it.
    std::optional<std::string> lineSerial() const;

    // The line's record, or null. Written under the device-table lock;
    // atomic because a node torn down by device loss reads it without.
    std::atomic<qlx*> device_{nullptr};
    // The serial of the line this node was attached to when another node
    // replaced it without tearing it down: it may still command that line,
    // but keeps no pointer into a table that the next rescan frees.
    // Device-table lock.
    std::optional<std::string> replacedOnSerial_;
    std::atomic<bool> teardownWithoutLocking_{false};
    std::atomic<bool> tornDown_{false};
    // Set once the node has started a timer under timerId() that teardown
    // must cancel (the deadman keep-alive).
    std::atomic<bool> cancelTimers_{false};
    // The node lock: guards what each subclass says it guards.
    std::mutex nodelock_;
    // The creator's reference, until teardown hands it to the release timer.
    std::mutex selfMutex_;  // guards self_; a leaf
    std::shared_ptr<Node> self_;
};
