#pragma once

// Every absolute path the daemon uses is built here and nowhere else.
// Each one is the fixed path prefixed by $KAL_ROOT (empty by default), in the
// spirit of `systemctl --root`: tests and the demo run in a private tree.
//
// The files of the daemon live where the Filesystem Hierarchy Standard puts
// them on a Linux system, not in one resources folder as on the platform the
// line-monitor protocol comes from: what the package ships and the daemon
// only reads (the line-monitor programs, the beep) in resources_dir(),
// /usr/lib/kaldevicemaster; what clients and the daemon change (qlxconfig,
// debuglevel) in state_dir(), /var/lib/kaldevicemaster, which the service
// unit's StateDirectory= creates, owned by the daemon's user. Both are
// build-time choices (CMake cache variables KAL_RESOURCES_DIR and
// KAL_STATE_DIR). Nothing is copied into the state directory: a missing
// qlxconfig or debuglevel reads as the defaults (silence detection off, level
// DEBUG), and the first client that changes one creates it. The log directory
// and its markers stay where other programs look for them.

#include <string>

namespace kal {

// Reverse-domain vendor identifier, fixed at build time.
inline constexpr const char kVendorId[] = "com.orvane";

// Program names of the line-monitor kinds (argv[0] of the children): the two
// adapter models, and voice modems.
inline constexpr const char kLineMonitorName[] = "KALLineMonitor";
inline constexpr const char kZRXLineMonitorName[] = "ZRXLineMonitor";
inline constexpr const char kV253LineMonitorName[] = "V253LineMonitor";

// The D-Bus name the client service owns.
std::string bus_name();

// $KAL_ROOT, or "" when unset.
std::string kal_root();

// Resources, read only: line-monitor programs and sounds.
std::string resources_dir();          // "/usr/lib/kaldevicemaster"
std::string linemonitor_path();       // type-1 program
std::string zrx_linemonitor_path();   // type-2 program
std::string v253_linemonitor_path();  // type-3 program (voice modems)
std::string tone450_path();

// State that clients and the daemon change.
std::string state_dir();  // "/var/lib/kaldevicemaster"
std::string qlxconfig_path();
std::string debuglevel_path();

// Logging and housekeeping.
std::string log_parent_dir();                  // "/var/tmp"
std::string log_dir();                         // "/var/tmp/com.orvane"
std::string forcedevel_marker();               // "/var/tmp/com.orvane.forcedevel"
std::string vomit_marker();                    // log_dir() + "/.vomit"
std::string openbase_backup();                 // log_dir() + "/QuessarCTI.bck"
std::string dialsound_capture();               // log_dir() + "/dialsound.8k"
std::string probesound_capture();              // log_dir() + "/probesound.8k"
std::string dialsound_capture_at(long when);   // ".../dialsound.<when>.8k"
std::string probesound_capture_at(long when);  // ".../probesound.<when>.8k"
std::string vmntest_marker();  // "/Library/Application Support/Quessar/Private/.vmntest"

}  // namespace kal
