#pragma once

// Every absolute path the daemon uses is built here and nowhere else.
// Each one is the fixed path prefixed by $KAL_ROOT (empty by default), in the
// spirit of `systemctl --root`: tests and the demo run in a private tree.

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

// Resources: line-monitor programs, configuration and sounds.
std::string resources_dir();
std::string linemonitor_path();       // type-1 program
std::string zrx_linemonitor_path();   // type-2 program
std::string v253_linemonitor_path();  // type-3 program (voice modems)
std::string qlxconfig_path();
std::string debuglevel_path();
std::string tone450_path();

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
