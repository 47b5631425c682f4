// kal-answer: the answering machine on top of kaldevicemaster. See
// `kal-answer --help` and the README.

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "answer/announce.h"
#include "answer/answerer.h"
#include "answer/bus_service.h"
#include "answer/config.h"
#include "answer/store.h"
#include "answer/web.h"
#include "base/paths.h"
#include "client/client.h"
#include "service/sd_bus_handles.h"
#include "service/vocabulary.h"

using namespace kal;
using namespace kal::answer;
using namespace std::chrono_literals;

namespace {

constexpr const char kUsage[] =
    "usage: kal-answer [--config FILE] [--state DIR] [--sounds DIR] [--web-port PORT|off]\n"
    "Answers the lines of kaldevicemaster: greetings, mailboxes, a message store,\n"
    "remote check with a PIN. SIGHUP reads the configuration again.\n"
    "  --config FILE  the configuration (default $KAL_ROOT/etc/kal-answer.conf)\n"
    "  --state DIR    the message store (default $STATE_DIRECTORY, else\n"
    "                 $KAL_ROOT/var/lib/kal-answer)\n"
    "  --sounds DIR   the prompts the build spoke (default $KAL_ANSWER_SOUNDS, else\n"
    "                 " KAL_ANSWER_SOUNDS_DIR
    ")\n"
    "  --web-port P   the messages page's port on 127.0.0.1 (default 0: a free\n"
    "                 port, the same as last time while it is free; kalctl web\n"
    "                 prints the address), off: no page. Its files\n"
    "                 come from $KAL_ANSWER_WEB, else " KAL_ANSWER_WEB_DIR "\n";

void note(const std::string& text) {
    std::cerr << "kal-answer: " << text << std::endl;
}

struct Options {
    std::string config = default_config_path();
    std::string state;
    std::string sounds;
    std::string web;
    int webPort = 0;  // -1: off
};

std::optional<Options> parse(int argc, char** argv) {
    Options o;
    const char* env_state = std::getenv("STATE_DIRECTORY");
    o.state = env_state && *env_state ? env_state : kal_root() + "/var/lib/kal-answer";
    const char* env_sounds = std::getenv("KAL_ANSWER_SOUNDS");
    o.sounds = env_sounds && *env_sounds ? env_sounds : KAL_ANSWER_SOUNDS_DIR;
    const char* env_web = std::getenv("KAL_ANSWER_WEB");
    o.web = env_web && *env_web ? env_web : KAL_ANSWER_WEB_DIR;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::cout << kUsage;
            std::exit(0);
        }
        if ((a == "--config" || a == "--state" || a == "--sounds") && i + 1 < argc) {
            (a == "--config" ? o.config : a == "--state" ? o.state : o.sounds) = argv[++i];
            continue;
        }
        if (a == "--web-port" && i + 1 < argc) {
            const std::string v = argv[++i];
            char* end = nullptr;
            const long port = std::strtol(v.c_str(), &end, 10);
            if (v == "off") {
                o.webPort = -1;
            } else if (!v.empty() && *end == 0 && port >= 0 && port <= 65535) {
                o.webPort = static_cast<int>(port);
            } else {
                std::cerr << "kal-answer: --web-port takes a port number or off, not '" << v
                          << "'\n";
                return std::nullopt;
            }
            continue;
        }
        std::cerr << "kal-answer: unknown argument '" << a << "'\n" << kUsage;
        return std::nullopt;
    }
    return o;
}

// The signals that stop (SIGTERM, SIGINT) or reload (SIGHUP) the service.
// They are blocked from the start and read: from the client's event loop
// when connected, by stop_requested_within between attempts to reach the
// bus.
sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int sig : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&set, sig);
    return set;
}

// Waits up to `wait` for SIGTERM or SIGINT between attempts to reach the
// bus (a SIGHUP there is dropped: the configuration is read again on the
// next one once connected).
bool stop_requested_within(std::chrono::milliseconds wait) {
    const sigset_t stops = stop_signals();
    const auto end = std::chrono::steady_clock::now() + wait;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
            end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        const timespec ts{static_cast<time_t>(left.count() / 1'000'000'000),
                          static_cast<long>(left.count() % 1'000'000'000)};
        const int sig = sigtimedwait(&stops, nullptr, &ts);
        if (sig == SIGTERM || sig == SIGINT)
            return true;
        if (sig < 0 && errno != EINTR)
            return false;  // EAGAIN: the time is up
    }
}

// Every greeting the file names must convert; the converted file is cached
// for the calls to come.
Config read_config(const std::string& path, GreetingCache& cache) {
    if (::access(path.c_str(), F_OK) != 0) {
        note(path + " does not exist: answering with the built-in settings");
        return parse_config("", path);
    }
    return load_config(path, [&](const std::string& greeting) { cache.get(greeting); });
}

}  // namespace

int main(int argc, char** argv) {
    const auto options = parse(argc, argv);
    if (!options)
        return 2;
    const sigset_t stops = stop_signals();
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);
    try {
        MessageStore store(options->state);
        const RepairReport& repair = store.last_repair();
        if (!repair.clean())
            note("store repaired: " + std::to_string(repair.rowsWithoutFile) +
                 " messages without audio marked deleted, " +
                 std::to_string(repair.filesWithoutRow) + " stray files moved to lost+found, " +
                 std::to_string(repair.unfinishedFiles) + " unfinished files removed, " +
                 std::to_string(repair.callsInterrupted) + " calls closed as interrupted");
        GreetingCache cache(store.dir() + "/greetings");
        Config config;
        try {
            config = read_config(options->config, cache);
        } catch (const std::exception& e) {
            note(e.what());
            return 1;
        }
        Answerer answerer(std::move(config), store,
                          Places{kal_root() + "/var/tmp/kal-answer", options->sounds});
        BusService service(store);
        // Opened after `store`, whose opening repaired the store: the page's
        // connection finds it consistent.
        std::unique_ptr<WebServer> web;
        if (options->webPort >= 0) {
            web = std::make_unique<WebServer>(WebOptions{
                .stateDir = store.dir(), .assetsDir = options->web, .port = options->webPort});
            web->start();
            service.setWebAddress(web->url());
            note("messages page on http://127.0.0.1:" + std::to_string(web->port()) +
                 "/ (kalctl web prints it with its token)");
        }
        answerer.onNewMessage([&](const Message& m, int waiting, bool quiet) {
            service.announce(m, waiting);
            if (web)
                web->messageArrived(m);
            const std::string& command = answerer.config().line(m.line).announceCommand;
            if (!command.empty() && !quiet)
                run_announcement(command, announcement_environment(m, store.path_of(m), waiting));
        });

        std::string lastFailure;
        for (;;) {
            try {
                client::Client client(client::ClientOptions{
                    .address = "",
                    .delegatePath = client::kDefaultDelegatePath,
                    .identification = "kal-answer (pid " + std::to_string(getpid()) + ")",
                    .callTimeout = 10s,
                });
                client.setNotificationHandler(
                    [&](const client::Notification& n) { answerer.handle(n); });
                client.stopOnSignals({SIGTERM, SIGINT, SIGHUP});
                service.attach(client.bus());
                lastFailure.clear();
                // The daemon's name changing hands wakes the loop at once.
                bool ownerChanged = true;
                sd_bus_slot* raw = nullptr;
                sd_bus_match_signal(
                    client.bus(), &raw, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                    "org.freedesktop.DBus", "NameOwnerChanged",
                    [](sd_bus_message* m, void* flag, sd_bus_error*) {
                        const char* name = nullptr;
                        if (sd_bus_message_read_basic(m, 's', &name) > 0 && name &&
                            std::strcmp(name, kal_DO_Server_Name) == 0)
                            *static_cast<bool*>(flag) = true;
                        return 0;
                    },
                    &ownerChanged);
                SlotPtr match(raw);
                std::string owner;
                for (;;) {
                    if (ownerChanged) {
                        ownerChanged = false;
                        const std::string now = client.nameOwner(kal_DO_Server_Name);
                        if (now != owner && !owner.empty()) {
                            note("kaldevicemaster went away");
                            answerer.detach();
                        }
                        if (now != owner && !now.empty()) {
                            try {
                                const std::string code =
                                    client.registerApplication("kal-answer", "com.orvane");
                                if (code != kal_ResponseCode_OK)
                                    throw std::runtime_error("registration refused: " + code);
                                answerer.attach(client);
                                note("registered with kaldevicemaster (" + now +
                                     "), lines: " + std::to_string(answerer.lines().size()));
                            } catch (const std::exception& e) {
                                note(std::string("cannot register with kaldevicemaster: ") +
                                     e.what());
                                answerer.detach();
                            }
                        }
                        owner = now;
                    }
                    const auto result = client.run(1s, [&] { return ownerChanged; });
                    if (result == client::Client::RunResult::Stopped) {
                        if (client.stopSignal() != SIGHUP) {
                            note("stopping");
                            return 0;
                        }
                        try {
                            answerer.setConfig(read_config(options->config, cache));
                            note("configuration read again from " + options->config);
                        } catch (const std::exception& e) {
                            note(std::string(e.what()) + " -- keeping the configuration we had");
                        }
                    }
                    // The loop comes round at least once a second, so a
                    // change made on the page is announced within one.
                    if (web && web->takeStoreChanged())
                        service.waitingChanged();
                    answerer.tick(std::chrono::steady_clock::now());
                    reap_announcements();
                }
            } catch (const client::BusFailure& e) {
                const std::string failure = e.what();
                // A bus that stays away fails the same way every second:
                // said once, not once a second.
                if (failure != lastFailure)
                    note("the bus failed: " + failure + "; connecting again");
                lastFailure = failure;
                answerer.detach();
                service.detach();
                if (stop_requested_within(1s)) {
                    note("stopping");
                    return 0;
                }
            }
        }
    } catch (const std::exception& e) {
        note(e.what());
        return 1;
    }
}
