#pragma once

// What the daemon core and the line event thread need of a call-handling
// node attached to a line. The node classes implement it; the core only
// ever holds a node through this interface, so it never depends on them.

struct qlx;

// Answers of handleEventWithBuffer.
inline constexpr int kNodePassOn = 0;    // not handled: notify clients as usual
inline constexpr int kNodeConsumed = 1;  // handled: nobody else sees it
inline constexpr int kNodeRehandle = 2;  // notify clients, then give it back

class LineNode {
  public:
    virtual ~LineNode() = default;
    // Called on the line event thread without the device-table lock held.
    virtual int handleEventWithBuffer(const char* buffer, int length, int qlx,
                                      const char* serial) = 0;
    virtual void rehandleEventWithBuffer(const char* buffer, int length, int qlx,
                                         const char* serial) = 0;
    // The table was replaced: `record` is this node's record now. Called
    // with the device-table lock held.
    virtual void setDevicePtr(qlx* record) = 0;
    // The line monitor died or the adapter vanished. Called with the
    // device-table lock held: must not take it.
    virtual void deviceLost() = 0;
    // Called just before deviceLost, under the same lock, so that the node
    // can note that its teardown must not take the device-table lock.
    virtual void beforeDeviceLost() {}
};

inline void node_setdeviceptr(LineNode& node, qlx* record) {
    node.setDevicePtr(record);
}
inline void node_devicelost(LineNode& node) {
    node.beforeDeviceLost();
    node.deviceLost();
}
