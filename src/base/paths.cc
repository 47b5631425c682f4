#include "base/paths.h"

#include <cstdlib>

// The build passes both (CMake cache variables of the same names).
#ifndef KAL_RESOURCES_DIR
#define KAL_RESOURCES_DIR "/usr/lib/kaldevicemaster"
#endif
#ifndef KAL_STATE_DIR
#define KAL_STATE_DIR "/var/lib/kaldevicemaster"
#endif

namespace kal {

std::string kal_root() {
    const char* root = std::getenv("KAL_ROOT");
    return root ? root : "";
}

std::string bus_name() {
    return std::string(kVendorId) + ".devicemaster.listener.v2";
}

std::string resources_dir() {
    return kal_root() + KAL_RESOURCES_DIR;
}
std::string linemonitor_path() {
    return resources_dir() + "/" + kLineMonitorName;
}
std::string zrx_linemonitor_path() {
    return resources_dir() + "/" + kZRXLineMonitorName;
}
std::string v253_linemonitor_path() {
    return resources_dir() + "/" + kV253LineMonitorName;
}
std::string tone450_path() {
    return resources_dir() + "/tone450.raw";
}

std::string state_dir() {
    return kal_root() + KAL_STATE_DIR;
}
std::string qlxconfig_path() {
    return state_dir() + "/qlxconfig";
}
std::string debuglevel_path() {
    return state_dir() + "/debuglevel";
}

std::string log_parent_dir() {
    return kal_root() + "/var/tmp";
}
std::string log_dir() {
    return log_parent_dir() + "/" + kVendorId;
}
std::string forcedevel_marker() {
    return log_dir() + ".forcedevel";
}
std::string vomit_marker() {
    return log_dir() + "/.vomit";
}
std::string openbase_backup() {
    return log_dir() + "/QuessarCTI.bck";
}
std::string dialsound_capture() {
    return log_dir() + "/dialsound.8k";
}
std::string probesound_capture() {
    return log_dir() + "/probesound.8k";
}
std::string dialsound_capture_at(long when) {
    return log_dir() + "/dialsound." + std::to_string(when) + ".8k";
}
std::string probesound_capture_at(long when) {
    return log_dir() + "/probesound." + std::to_string(when) + ".8k";
}
std::string vmntest_marker() {
    return kal_root() + "/Library/Application Support/Quessar/Private/.vmntest";
}

}  // namespace kal
