#pragma once

// Fake USB serial ports for discovery and hot-plug tests, in a umockdev
// testbed. The real libudev sees them, in this process and in every process
// it starts (they inherit UMOCKDEV_DIR and the preload library). A test
// binary that uses this runs under umockdev-wrapper.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "modemsim_control.h"

struct _UMockdevTestbed;

namespace kal::test {

// The product names of the two adapter models, spelled here on purpose
// rather than taken from the daemon's code.
inline constexpr const char kType1Product[] = "USB Kestrel Line Unit";
inline constexpr const char kType2Product[] = "Kestrel Line Unit II";

// A USB voice modem's port. By default it looks like a Conexant-based
// modem (0572:1329) as the project's udev rule leaves it: tagged
// KAL_VOICE_MODEM=1 and ID_MM_DEVICE_IGNORE=1, with an ID_PATH.
struct VoiceModemOptions {
    std::optional<std::string> serial = "12345678";  // the USB serial; nullopt: none
    std::string vendor = "0572";
    std::string product_id = "1329";
    std::optional<std::string> tag = "1";  // KAL_VOICE_MODEM; nullopt: untagged
    // With add_voice_modem(): the emulator's speed and quirks ("name=value").
    double speed = 100;
    std::vector<std::string> quirks;
};

struct VoiceModemPort {
    std::string devnode;  // "/dev/ttyACM0"
    std::string id_path;  // what the daemon names the line when the serial is no name
};

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

    // A voice modem's ttyACM port without anything behind it.
    VoiceModemPort add_voice_modem_port(const VoiceModemOptions& options = {});
    // A voice modem's port with the emulator (kal-modemsim) behind it: a
    // program that opens the devnode under umockdev talks to the emulator.
    // The handle lives as long as this object.
    struct VoiceModem {
        VoiceModemPort port;
        ModemSim& sim;
    };
    VoiceModem add_voice_modem(const VoiceModemOptions& options = {});

    // Sends "remove" for the tty at `devnode`, then takes it and its USB
    // device out of the testbed. An emulated modem's port vanishes first
    // (the program that has it open reads a hang-up); the emulator stays
    // for its control socket.
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
        ModemSim* modem = nullptr;
    };
    std::string add(const std::string& description, Port port);
    void remove(const std::string& devnode, bool announce);

    _UMockdevTestbed* testbed_ = nullptr;
    std::vector<Port> ports_;
    std::vector<std::unique_ptr<ModemSim>> modems_;
    // Every port gets a fresh number: umockdev cannot add a removed name again.
    int next_ = 0;
};

}  // namespace kal::test
