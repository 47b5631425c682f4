// Cost of one log line: every kept message is formatted and flushed to the
// file at once, and a filtered one must cost next to nothing.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/paths.h"
#include "log/kallog.h"

namespace {

void setup_root() {
    static bool done = false;
    if (done)
        return;
    done = true;
    char templ[] = "/tmp/kalbench.XXXXXX";
    const char* root = mkdtemp(templ);
    setenv("KAL_ROOT", root, 1);
    std::filesystem::create_directories(std::string(root) + "/var/tmp");
    kallogregister("KALDeviceMaster");
}

void BM_KeptMessage(benchmark::State& state) {
    setup_root();
    for (auto _ : state)
        kallog(kal::KAL_NOTICE, "Message received from QLX%d.", 0);
}
BENCHMARK(BM_KeptMessage);

void BM_FilteredMessage(benchmark::State& state) {
    setup_root();
    for (auto _ : state)
        kallog(kal::KAL_DEVEL, "Dispatching event to node %p", nullptr);
}
BENCHMARK(BM_FilteredMessage);

}  // namespace
