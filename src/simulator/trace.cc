#include "simulator/trace.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace kal::linesim {

namespace {

std::string name = "kal-linesim";
bool verbose = false;

void vprint(const char* format, va_list ap) {
    char text[2048];
    vsnprintf(text, sizeof text, format, ap);
    fprintf(stderr, "%s: %s\n", name.c_str(), text);
}

}  // namespace

void set_trace_name(const char* serial) {
    name = std::string("kal-linesim[") + serial + "]";
}

void set_trace_verbose(bool on) {
    verbose = on;
}

bool trace_verbose() {
    return verbose;
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

}  // namespace kal::linesim
