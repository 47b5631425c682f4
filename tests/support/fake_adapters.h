#pragma once

// Fake USB serial ports for discovery and hot-plug tests, in a umockdev
// testbed. The real libudev sees them, in this process and in every process
// it starts (they inherit UMOCKDEV_DIR and the preload library). A test
// binary that uses this runs under umockdev-wrapper.

#include <optional>
#include <string>
#include <vector>

struct _UMockdevTestbed;

namespace kal::test {

// The product names of the two adapter models, spelled here on purpose
// rather than taken from the daemon's code.
inline constexpr const char kType1Product[] = "USB Kestrel Line Unit";
inline constexpr const char kType2Product[] = "Kestrel Line Unit II";

class FakeAdapters {
  public:
    FakeAdapters();
    ~FakeAdapters();
    FakeAdapters(const FakeAdapters&) = delete;
    FakeAdapters& operator=(const FakeAdapters&) = delete;

    // Plugs in a USB device with the sysattrs `product` and `serial` (none
    // when nullopt), one interface and a tty below it; udev listeners see
    // "add". Returns the tty's device node, e.g. "/dev/ttyUSB0".
    std::string add_usb_port(const std::string& product, const std::optional<std::string>& serial);
    // An adapter of model 1 or 2.
    std::string add_adapter(int type, const std::string& serial);
    // A tty with no USB device above it, like a built-in serial port.
    std::string add_builtin_port();

    // Sends "remove" for the tty at `devnode`, then takes it and its USB
    // device out of the testbed.
    void unplug(const std::string& devnode);
    // Takes the tty at `devnode` and its USB device out of the testbed
    // without a "remove": what a scan sees between a device leaving sysfs
    // and udev announcing it.
    void forget(const std::string& devnode);

  private:
    struct Port {
        std::string devnode;
        std::string tty_syspath;
        std::string top_syspath;  // the USB device, or the tty itself
    };
    std::string add(const std::string& description, Port port);
    void remove(const std::string& devnode, bool announce);

    _UMockdevTestbed* testbed_ = nullptr;
    std::vector<Port> ports_;
    // Every port gets a fresh number: umockdev cannot add a removed name again.
    int next_ = 0;
};

}  // namespace kal::test
