#include "simctl/trace.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace kal::simctl {

namespace {

std::string name = "simulator";
bool verbose = false;

void vprint(const char* format, va_list ap) {
    char text[2048];
    vsnprintf(text, sizeof text, format, ap);
    fprintf(stderr, "%s: %s\n", name.c_str(), text);
}

}  // namespace

void set_trace_name(const std::string& n) {
    name = n;
}

void set_trace_verbose(bool on) {
    verbose = on;
}

void trace(const char* format, ...) {
    if (!verbose)
        return;
    va_list ap;
    va_start(ap, format);
    vprint(format, ap);
    va_end(ap);
}

void fail(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    vprint(format, ap);
    va_end(ap);
}

}  // namespace kal::simctl
