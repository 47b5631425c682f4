#include "core/discovery.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "core/hotplug.h"
#include "core/udev_handles.h"
#include "log/kallog.h"

// The log texts name the calls of the platform this daemon was first written
// for; they are kept so that logs read the same everywhere.

using namespace kal;

namespace {

const char* text_or_null(const char* s) {
    return s ? s : "(null)";
}

// The facts discovery looked at, for the DEBUG lines.
std::string describe_port(udev_device* tty, udev_device* usb) {
    std::string text = "{syspath=";
    text += text_or_null(udev_device_get_syspath(tty));
    text += ", sysname=";
    text += text_or_null(udev_device_get_sysname(tty));
    text += ", devnode=";
    text += text_or_null(udev_device_get_devnode(tty));
    text += ", parent=";
    if (usb) {
        text += "{syspath=";
        text += text_or_null(udev_device_get_syspath(usb));
        text += ", product=\"";
        text += text_or_null(udev_device_get_sysattr_value(usb, "product"));
        text += "\", serial=\"";
        text += text_or_null(udev_device_get_sysattr_value(usb, "serial"));
        text += "\"}";
    } else {
        text += "none";
    }
    return text + "}";
}

bool tagged_voice_modem(udev_device* tty) {
    const char* tag = udev_device_get_property_value(tty, kVoiceModemProperty);
    return tag && std::strcmp(tag, kVoiceModemTagged) == 0;
}

// What can name a voice modem, read while its udev device is at hand.
struct VoiceModemNames {
    size_t record;           // index in the table
    std::string usb_serial;  // empty when missing
    std::string fallback;    // ID_PATH, else the tty's sysname
};

// The USB serial when no other voice modem present reports the same one.
void name_voice_modems(const std::vector<VoiceModemNames>& modems, std::vector<qlx>& found) {
    for (const auto& m : modems) {
        const auto same = std::count_if(modems.begin(), modems.end(), [&](const auto& other) {
            return other.usb_serial == m.usb_serial;
        });
        qlx& record = found[m.record];
        record.serial = !m.usb_serial.empty() && same == 1 ? m.usb_serial : m.fallback;
        kallog(KAL_DEBUG, "Assigning #%d to voice modem with serial number %s (USB serial \"%s\")",
               static_cast<int>(m.record), record.serial.c_str(), m.usb_serial.c_str());
    }
}

}  // namespace

int qlx_device_type(const char* product, const char* serial) {
    if (!product || !serial || !*serial)
        return 0;
    if (std::strcmp(product, kQlx1ProductName) == 0)
        return 1;
    if (std::strcmp(product, kQlx2ProductName) == 0)
        return 2;
    return 0;
}

bool FindModems(std::vector<qlx>* table, int* count, bool setupNotifications,
                HotplugMonitor* hotplug) {
    kallog(KAL_DEBUG, "FindModems() setupNotifications=%d", setupNotifications ? 1 : 0);
    kallog(KAL_DEBUG, "Getting IOMasterPort");
    UdevPtr udev(udev_new());
    if (!udev) {
        kallog(KAL_ERR, "IOMasterPort() returned %d. Can't get master port to search for QLXs.",
               -errno);
        return false;
    }

    UdevEnumeratePtr matching(udev_enumerate_new(udev.get()));
    if (!matching || udev_enumerate_add_match_subsystem(matching.get(), "tty") < 0) {
        kallog(KAL_ERR, "IOServiceMatching returned a NULL dictionary.");
        return false;
    }

    // Watch first, enumerate second: a port that appears in between is then
    // reported rather than missed.
    if (setupNotifications && !(hotplug && hotplug->setup_notifications())) {
        kallog(KAL_ERR, "Couldn't setup notifications.");
        return false;
    }

    kallog(KAL_DEBUG, "IOServiceGetMatchingServices");
    if (int rc = udev_enumerate_scan_devices(matching.get()); rc < 0) {
        kallog(KAL_ERR, "IOServiceGetMatchingServices returned %d", rc);
        return false;
    }

    // The serial ports: every tty backed by a device. Virtual consoles and
    // pseudo-terminals live under /devices/virtual and are never adapters.
    // Every port counts, so the table may hold fewer adapters than this.
    std::vector<std::string> ports;
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(matching.get())) {
        const std::string syspath = udev_list_entry_get_name(entry);
        if (syspath.find("/devices/virtual/") == std::string::npos)
            ports.push_back(syspath);
    }
    const int services = static_cast<int>(ports.size());
    kallog(KAL_DEBUG, "Creating buffers to hold at most %d QLXs", services);
    std::vector<qlx> found;
    try {
        found.reserve(ports.size());
    } catch (const std::bad_alloc&) {
        kallog(KAL_ERR, "Malloc of %d qlx buffers failed", services);
        return false;
    }
    std::vector<VoiceModemNames> voice_modems;
    // The udev context stays until the end: the devices below are read
    // through it.
    kallog(KAL_DEBUG, "Deallocating IOMasterPort");

    for (int device = 0; device < services; ++device) {
        kallog(KAL_DEBUG, "Probing device %d", device);
        UdevDevicePtr tty(udev_device_new_from_syspath(udev.get(), ports[device].c_str()));
        if (!tty) {
            kallog(KAL_DEBUG, "Can't get properties for device %d", device);
            continue;
        }
        // Borrowed: the parent belongs to `tty`.
        udev_device* usb =
            udev_device_get_parent_with_subsystem_devtype(tty.get(), "usb", "usb_device");
        const std::string props = describe_port(tty.get(), usb);
        if (tagged_voice_modem(tty.get()) && udev_device_get_devnode(tty.get())) {
            const char* usb_serial = usb ? udev_device_get_sysattr_value(usb, "serial") : nullptr;
            const char* id_path = udev_device_get_property_value(tty.get(), "ID_PATH");
            voice_modems.push_back(
                {found.size(), usb_serial ? usb_serial : "",
                 id_path && *id_path ? id_path : udev_device_get_sysname(tty.get())});
            qlx& record = found.emplace_back();
            record.ttyDevice = udev_device_get_sysname(tty.get());
            record.calloutDevice = udev_device_get_devnode(tty.get());
            record.deviceType = kVoiceModemDeviceType;
            kallog(KAL_DEBUG, "Voice modem: %s", props.c_str());
            continue;
        }
        if (!usb) {
            kallog(KAL_DEBUG, "Did not get success from parent entry. Assuming not a QLX: %s",
                   props.c_str());
            continue;
        }
        const char* serial = udev_device_get_sysattr_value(usb, "serial");
        const char* devnode = udev_device_get_devnode(tty.get());
        const int type = qlx_device_type(udev_device_get_sysattr_value(usb, "product"), serial);
        if (type == 0 || !devnode) {
            kallog(KAL_DEBUG, "Skipping non-QLX device: %s", props.c_str());
            continue;
        }
        kallog(KAL_DEBUG, "Assigning #%d to QLX%d with serial number %s: %s",
               static_cast<int>(found.size()), type, serial, props.c_str());
        qlx& record = found.emplace_back();
        record.serial = serial;
        record.ttyDevice = udev_device_get_sysname(tty.get());
        record.calloutDevice = devnode;
        record.deviceType = type;
    }

    name_voice_modems(voice_modems, found);
    kallog(KAL_DEBUG, "Done detecting %d QLXs", static_cast<int>(found.size()));
    *count = static_cast<int>(found.size());
    *table = std::move(found);
    return true;
}
