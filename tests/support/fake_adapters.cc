#include "fake_adapters.h"

#include <umockdev.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace kal::test {

FakeAdapters::FakeAdapters() {
    // The testbed is a directory under TMPDIR: keep it in the build tree, so
    // an aborted run leaves nothing in /tmp.
    setenv("TMPDIR", KAL_TEST_TMP, 1);
    testbed_ = umockdev_testbed_new();  // sets UMOCKDEV_DIR for us and our children
    // Only answers true once a testbed exists.
    if (!umockdev_in_mock_environment()) {
        g_object_unref(testbed_);
        throw std::runtime_error("FakeAdapters needs the test to run under umockdev-wrapper");
    }
}

FakeAdapters::~FakeAdapters() {
    modems_.clear();           // the emulators first: their links are in the testbed
    g_object_unref(testbed_);  // removes the testbed and unsets UMOCKDEV_DIR
}

std::string FakeAdapters::add(const std::string& description, Port port) {
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(testbed_, description.c_str(), &error)) {
        std::string why = error ? error->message : "unknown error";
        g_clear_error(&error);
        throw std::runtime_error("umockdev: " + why + "\n" + description);
    }
    ports_.push_back(port);
    return port.devnode;
}

std::string FakeAdapters::add_usb_port(const std::string& product,
                                       const std::optional<std::string>& serial) {
    const std::string n = std::to_string(next_++);
    const std::string usb = "/devices/pci0000:00/0000:00:14.0/usb1/1-" + n;
    const std::string iface = usb + "/1-" + n + ":1.0";
    const std::string tty = iface + "/ttyUSB" + n + "/tty/ttyUSB" + n;
    // Parent first; the interface between them is where a search that
    // ignores the devtype would stop.
    std::string d = "P: " + usb +
                    "\n"
                    "E: SUBSYSTEM=usb\n"
                    "E: DEVTYPE=usb_device\n"
                    "A: idVendor=1d6b\n"
                    "A: product=" +
                    product + "\n";
    if (serial)
        d += "A: serial=" + *serial + "\n";
    d += "\nP: " + iface +
         "\n"
         "E: SUBSYSTEM=usb\n"
         "E: DEVTYPE=usb_interface\n"
         "A: interface=Serial Port\n"
         "\nP: " +
         tty +
         "\n"
         "N: ttyUSB" +
         n +
         "\n"
         "E: SUBSYSTEM=tty\n"
         "E: DEVNAME=/dev/ttyUSB" +
         n + "\n";
    return add(d, {"/dev/ttyUSB" + n, "/sys" + tty, "/sys" + usb});
}

std::string FakeAdapters::add_adapter(int type, const std::string& serial) {
    return add_usb_port(type == 1 ? kType1Product : kType2Product, serial);
}

std::string FakeAdapters::add_builtin_port() {
    const std::string n = std::to_string(next_++);
    const std::string tty = "/devices/platform/serial8250/tty/ttyS" + n;
    const std::string d = "P: " + tty + "\nN: ttyS" + n +
                          "\n"
                          "E: SUBSYSTEM=tty\n"
                          "E: DEVNAME=/dev/ttyS" +
                          n + "\n";
    return add(d, {"/dev/ttyS" + n, "/sys" + tty, "/sys" + tty});
}

VoiceModemPort FakeAdapters::add_voice_modem_port(const VoiceModemOptions& o) {
    const std::string n = std::to_string(next_++);
    const std::string usb = "/devices/pci0000:00/0000:00:14.0/usb1/1-" + n;
    const std::string iface = usb + "/1-" + n + ":1.0";
    const std::string tty = iface + "/tty/ttyACM" + n;
    const std::string id_path = "pci-0000:00:14.0-usb-0:" + n + ":1.0";
    std::string d = "P: " + usb +
                    "\n"
                    "E: SUBSYSTEM=usb\n"
                    "E: DEVTYPE=usb_device\n"
                    "A: idVendor=" +
                    o.vendor + "\nA: idProduct=" + o.product_id +
                    "\n"
                    "A: product=USB Modem\n";
    if (o.serial)
        d += "A: serial=" + *o.serial + "\n";
    d += "\nP: " + iface +
         "\n"
         "E: SUBSYSTEM=usb\n"
         "E: DEVTYPE=usb_interface\n"
         "A: bInterfaceClass=02\n"
         "\nP: " +
         tty + "\nN: ttyACM" + n +
         "\n"
         "E: SUBSYSTEM=tty\n"
         "E: DEVNAME=/dev/ttyACM" +
         n + "\nE: ID_PATH=" + id_path + "\n";
    if (o.tag)
        d += "E: KAL_VOICE_MODEM=" + *o.tag + "\nE: ID_MM_DEVICE_IGNORE=1\n";
    return {add(d, {"/dev/ttyACM" + n, "/sys" + tty, "/sys" + usb}), id_path};
}

FakeAdapters::VoiceModem FakeAdapters::add_voice_modem(const VoiceModemOptions& o) {
    VoiceModemPort port = add_voice_modem_port(o);
    gchar* root = umockdev_testbed_get_root_dir(testbed_);
    const std::string dir = root;
    g_free(root);
    const std::string name = port.devnode.substr(port.devnode.rfind('/') + 1);
    modems_.push_back(std::make_unique<ModemSim>(
        dir + "/dev/" + name, dir + "/modemsim-" + name + ".sock", o.speed, o.quirks));
    ports_.back().modem = modems_.back().get();
    return {port, *modems_.back()};
}

void FakeAdapters::unplug(const std::string& devnode) {
    remove(devnode, true);
}

void FakeAdapters::forget(const std::string& devnode) {
    remove(devnode, false);
}

void FakeAdapters::remove(const std::string& devnode, bool announce) {
    auto it = std::find_if(ports_.begin(), ports_.end(),
                           [&](const Port& p) { return p.devnode == devnode; });
    if (it == ports_.end())
        throw std::runtime_error("no fake port at " + devnode);
    if (it->modem && it->modem->send("vanish").rfind("ok", 0) != 0)
        throw std::runtime_error("the emulator behind " + devnode + " did not vanish");
    // Listeners learn of the removal only from the uevent; taking the
    // directories away is silent.
    if (announce)
        umockdev_testbed_uevent(testbed_, it->tty_syspath.c_str(), "remove");
    umockdev_testbed_remove_device(testbed_, it->tty_syspath.c_str());
    if (it->top_syspath != it->tty_syspath)
        umockdev_testbed_remove_device(testbed_, it->top_syspath.c_str());
    ports_.erase(it);
}

}  // namespace kal::test
