#pragma once

namespace kal {

// Short lower-case name of a signal as the log lines print it ("term", "hup",
// "int", "usr1"); "unknown" for a number without one.
const char* signal_short_name(int sig);

}  // namespace kal
