// Delivering a burst to clients: eight prompt clients each receive 100000
// notifications made at once by the line event thread, complete and in
// order, while a hung client beside them is dropped at its reply timeout
// (2 s here) without holding them up. Reports the time the burst took, the
// most the outboxes held and what they hold at the end (always 0).

#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bus_client.h"
#include "log/kallog.h"
#include "private_bus.h"
#include "service/notifier.h"
#include "service/vocabulary.h"
#include "service_harness.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using namespace std::chrono_literals;

namespace {

constexpr int kPromptClients = 8;

// KAL_BENCH_BURST sets another size, for a quick look.
size_t burst_size() {
    const char* text = getenv("KAL_BENCH_BURST");
    return text ? std::stoul(text) : 100000;
}

std::unique_ptr<BusClient> subscriber(const std::string& path) {
    auto c = std::make_unique<BusClient>(path);
    c->registerApp();
    c->subscribe(kal_RequestComplete);
    return c;
}

void BM_BurstToEightClientsBesideAHungOne(benchmark::State& state) {
    const size_t kBurst = burst_size();
    for (auto _ : state) {
        TempRoot root;
        PrivateBus bus;
        kallogregister("KALDeviceMaster");
        // Level 5 (NOTICE): the log of every delivery would measure the log.
        kalsetcurrentloglevel(5);
        SpokesmanOptions options;
        options.callTimeout = 2s;
        ServiceHarness server(options);
        auto bytes = [&] {
            return server.get<size_t>([](KALSpokesman& s) { return s.queuedBytes(); });
        };
        auto hung = subscriber("/hung");
        std::vector<std::unique_ptr<BusClient>> prompt;
        for (int i = 0; i < kPromptClients; ++i)
            prompt.push_back(subscriber("/prompt" + std::to_string(i)));

        const auto start = std::chrono::steady_clock::now();
        std::thread line_thread([kBurst] {
            for (size_t i = 0; i < kBurst; ++i)
                notify_cmd_failure(std::to_string(i), kal_ResponseCode_ERR_NoResource,
                                   std::string("A1"));
        });
        size_t peak = 0;
        auto next_sample = start;
        std::vector<BusClient*> pumped;
        for (auto& c : prompt)
            pumped.push_back(c.get());
        const bool complete = pump_until(
            pumped,
            [&] {
                // Asked of the server now and then: each question waits for
                // its thread, and the clients wait for this one.
                if (std::chrono::steady_clock::now() >= next_sample) {
                    peak = std::max(peak, bytes());
                    next_sample = std::chrono::steady_clock::now() + 100ms;
                }
                return std::all_of(prompt.begin(), prompt.end(),
                                   [&](const auto& c) { return c->received().size() >= kBurst; });
            },
            600s);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        line_thread.join();

        bool in_order = complete;
        for (const auto& c : prompt)
            for (size_t i = 0; in_order && i < kBurst; ++i)
                in_order = c->received()[i].userInfo.at(kal_Token).str() == std::to_string(i);
        const bool hung_dropped = wait_for([&] {
            return !server.get<bool>([&](KALSpokesman& s) {
                return s.registry().isSubscribed({hung->uniqueName(), "/hung"},
                                                 kal_RequestComplete);
            });
        });
        wait_for([&] { return bytes() == 0; });
        if (!complete || !in_order || !hung_dropped)
            state.SkipWithError(!complete   ? "a prompt client missed notifications"
                                : !in_order ? "a prompt client received them out of order"
                                            : "the hung client was not dropped");
        state.SetIterationTime(took.count());
        state.counters["seconds"] = took.count();
        state.counters["deliveries_per_s"] = kBurst * kPromptClients / took.count();
        state.counters["peak_outbox_MiB"] = static_cast<double>(peak) / (1 << 20);
        state.counters["final_outbox_bytes"] = static_cast<double>(bytes());
    }
}
BENCHMARK(BM_BurstToEightClientsBesideAHungOne)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace
