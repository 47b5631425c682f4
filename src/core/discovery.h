#pragma once

// Finding the telephone-line adapters among the machine's serial ports.
//
// An adapter is a tty whose USB device (the nearest ancestor of subsystem
// "usb", devtype "usb_device") has the sysattr `product` exactly equal to one
// of the two product names below and a non-empty sysattr `serial`. Its record
// gets that serial, the tty's sysname as ttyDevice ("ttyUSB0") and the tty's
// device node as calloutDevice ("/dev/ttyUSB0").
//
// A voice modem (deviceType 3) is a tty that udev tagged with the property
// KAL_VOICE_MODEM=1 (data/udev/60-kaldevicemaster-voicemodem.rules tags the
// known models; a user's rule can tag any port, or set 0 to keep one out).
// Its serial is its USB device's serial when that names one modem: many
// modems report the same placeholder, so when the serial is missing, empty,
// or shared by another voice modem present, the port's ID_PATH (stable for
// the USB socket it is plugged into, as /dev/serial/by-path) names it, and
// the tty's sysname when even that is missing.

#include <vector>

#include "core/device_table.h"

class HotplugMonitor;

// Product names of the USB device, one per adapter model (deviceType 1, 2).
inline constexpr const char kQlx1ProductName[] = "USB Kestrel Line Unit";
inline constexpr const char kQlx2ProductName[] = "Kestrel Line Unit II";

// The deviceType (1 or 2) of a port whose USB device reports `product` and
// `serial`, or 0 when it is not an adapter. Null stands for a missing
// attribute. Matching is exact: case and blanks count.
int qlx_device_type(const char* product, const char* serial);

// The udev property that marks a voice modem, and the value that does.
inline constexpr const char kVoiceModemProperty[] = "KAL_VOICE_MODEM";
inline constexpr const char kVoiceModemTagged[] = "1";
inline constexpr int kVoiceModemDeviceType = 3;

// Builds a fresh table of the adapters present, in udev's enumeration order,
// every record new (fd -1, pid -1, status 0). On success stores the table and
// its size and returns true; on failure logs why, returns false and leaves
// both untouched. With `setupNotifications`, `hotplug` starts watching for
// ports that appear or vanish before the enumeration, so that none is missed
// in between; failing to watch fails the call. The caller holds the
// device-table lock when `table` is gLines.
bool FindModems(std::vector<qlx>* table, int* count, bool setupNotifications,
                HotplugMonitor* hotplug = nullptr);
