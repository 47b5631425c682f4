#include "base/signame.h"

#include <signal.h>
#include <string.h>

#include <array>
#include <cctype>
#include <string>

namespace kal {

const char* signal_short_name(int sig) {
    static const std::array<std::string, NSIG> names = [] {
        std::array<std::string, NSIG> table;
        for (int s = 0; s < NSIG; ++s) {
            const char* abbrev = sigabbrev_np(s);
            std::string name = abbrev ? abbrev : "unknown";
            for (char& c : name)
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            table[s] = name;
        }
        return table;
    }();
    if (sig < 0 || sig >= NSIG)
        return "unknown";
    return names[sig].c_str();
}

}  // namespace kal
