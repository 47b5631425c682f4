#include "base/paths.h"

#include <cstdlib>

#ifndef KAL_RESOURCES_DIR
#define KAL_RESOURCES_DIR "/Library/Frameworks/KALPhoneKit.framework/Resources"
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
std::string qlxconfig_path() {
    return resources_dir() + "/qlxconfig";
}
std::string debuglevel_path() {
    return resources_dir() + "/debuglevel";
}
std::string tone450_path() {
    return resources_dir() + "/tone450.raw";
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
