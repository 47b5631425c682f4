// kal-make-tone OUTPUT: writes the recording beep (tone.h's kBeep450) to
// OUTPUT, through a temporary file beside it so that a failed run never
// leaves half a beep behind. Run by the build to make tone450.raw.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "resources/tone.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s OUTPUT\n", argv[0]);
        return 2;
    }
    const std::string out = argv[1];
    const std::string tmp = out + ".tmp";
    const std::string samples = kal::tone::make_tone(kal::tone::kBeep450);
    FILE* f = fopen(tmp.c_str(), "we");
    if (f == nullptr) {
        fprintf(stderr, "%s: %s: %s\n", argv[0], tmp.c_str(), strerror(errno));
        return 1;
    }
    const bool written = fwrite(samples.data(), 1, samples.size(), f) == samples.size();
    if (fclose(f) != 0 || !written || rename(tmp.c_str(), out.c_str()) != 0) {
        fprintf(stderr, "%s: writing %s: %s\n", argv[0], out.c_str(), strerror(errno));
        remove(tmp.c_str());
        return 1;
    }
    return 0;
}
