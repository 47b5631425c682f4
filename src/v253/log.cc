#include "v253/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace v253 {

namespace {

std::string g_name = "V253LineMonitor";

int threshold() {
    static const int level = [] {
        const char* v = std::getenv("KAL_V253_VERBOSE");
        return v && *v ? atoi(v) : kLogNotice;
    }();
    return level;
}

}  // namespace

void set_log_name(const char* name) {
    g_name = name;
}

void vlog(int level, const char* fmt, ...) {
    if (level > threshold())
        return;
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    fprintf(stderr, "%s: %s\n", g_name.c_str(), text);
}

}  // namespace v253
