// Line and call requests against the whole daemon: fake adapters (umockdev),
// the line-monitor simulator on each line, a client on the private bus. What
// a request makes the daemon send is read back at the simulator.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdint>
#include <functional>

#include "base/paths.h"
#include "bus_client.h"
#include "daemon_fixture.h"
#include "service/bus_values.h"
#include "service/vocabulary.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class LineRequestsTest : public DaemonTest {
  protected:
    void TearDown() override { stop_daemon(); }

    // Starts the daemon on the adapters plugged in so far and registers the
    // client; the daemon takes its name once its line monitors run.
    void start_daemon() {
        DaemonTest::start_daemon("Vending Listener", {"KAL_LINESIM_SPEED=100"});
        client_ = std::make_unique<BusClient>();
        ASSERT_TRUE(wait_for([&] { return client_->registerApp().str() == kal_ResponseCode_OK; }))
            << log();
    }
    // Two lines, one of each model.
    void start_with_two_lines() {
        ports_.add_adapter(1, "KL1001");
        ports_.add_adapter(2, "ZR2002");
        start_daemon();
        kl_ = std::make_unique<LineSimControl>("KL1001");
        zr_ = std::make_unique<LineSimControl>("ZR2002");
    }

    std::string dial(BusClient& c, const char* digits, const char* serial, const char* token,
                     bool waiting) {
        return c.call("Dial", "sssb", digits, serial, token, waiting ? 1 : 0).str();
    }
    std::string dial(const char* digits, const char* serial, const char* token, bool waiting) {
        return dial(*client_, digits, serial, token, waiting);
    }
    std::string cancel(const char* token) {
        return client_->call("CancelDialWithCallbackToken", "s", token).str();
    }

    std::unique_ptr<BusClient> client_;
    std::unique_ptr<LineSimControl> kl_, zr_;
};

TEST_F(LineRequestsTest, ListsTheLinesThatAreUpWithTheirModels) {
    start_with_two_lines();
    EXPECT_THAT(client_->call("Resources", "").strings(), ElementsAre("KL1001", "ZR2002"));
    EXPECT_THAT(client_->call("EnhancedResources", "").strings(), ElementsAre("ZR2002"));
    const auto type_of = [&](const char* serial) {
        int32_t type = 0;
        BusReply r = client_->call("DeviceTypeForResource", "s", serial);
        EXPECT_TRUE(r.ok()) << r.errorMessage;
        sd_bus_message_read(r.message.get(), "i", &type);
        return type;
    };
    EXPECT_EQ(type_of("KL1001"), 1);
    EXPECT_EQ(type_of("ZR2002"), 2);
    EXPECT_EQ(type_of("KL100"), -1);
    EXPECT_EQ(type_of(""), -1);
}

TEST_F(LineRequestsTest, QueuedRequestsReachTheLineInOrder) {
    start_with_two_lines();
    EXPECT_EQ(dial("5551234", "KL1001", "T1", false), kal_ResponseCode_OK);
    EXPECT_EQ(client_->call("PlaceCallOnResource", "sss", "KL1001", "5550000", "T2").str(),
              kal_ResponseCode_OK);
    EXPECT_EQ(client_->call("PerformTRVOnResource", "ssi", "KL1001", "power drop", 2).str(),
              kal_ResponseCode_OK);
    EXPECT_EQ(client_->call("HangUpResource", "ss", "KL1001", "T3").str(), kal_ResponseCode_OK);

    EXPECT_EQ(kl_->send("wait-command any"), "ok D digits=5551234");
    EXPECT_EQ(kl_->send("wait-command any"), "ok C token=T2 number=5550000");
    EXPECT_EQ(kl_->send("wait-command any"), "ok V vls=2 text=\"power drop\"");
    EXPECT_EQ(kl_->send("wait-command any"), "ok H");
}

TEST_F(LineRequestsTest, MalformedRequestsAreRefusedAndQueueNothing) {
    start_with_two_lines();
    struct Case {
        const char* desc;
        BusReply reply;
    } cases[] = {
        {"dial without digits", client_->call("Dial", "sssb", "", "KL1001", "T", 0)},
        {"parked dial without digits", client_->call("Dial", "sssb", "", "", "T", 1)},
        {"immediate dial on any line", client_->call("Dial", "sssb", "5", "", "T", 0)},
        {"cancel without token", client_->call("CancelDialWithCallbackToken", "s", "")},
        {"call without serial", client_->call("PlaceCallOnResource", "sss", "", "5", "T")},
        {"call without number", client_->call("PlaceCallOnResource", "sss", "KL1001", "", "T")},
        {"call without token", client_->call("PlaceCallOnResource", "sss", "KL1001", "5", "")},
        {"hang-up without serial", client_->call("HangUpResource", "ss", "", "T")},
        {"hang-up without token", client_->call("HangUpResource", "ss", "KL1001", "")},
        {"TRV without serial", client_->call("PerformTRVOnResource", "ssi", "", "r", 0)},
        {"TRV without reason", client_->call("PerformTRVOnResource", "ssi", "KL1001", "", 0)},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.reply.str(), kal_ResponseCode_ERR_MalformedRequest) << c.desc;

    // A good request after them is the first thing the line hears.
    EXPECT_EQ(client_->call("HangUpResource", "ss", "KL1001", "T").str(), kal_ResponseCode_OK);
    EXPECT_EQ(kl_->send("wait-command any"), "ok H");
}

TEST_F(LineRequestsTest, AParkedDialWaitsForItsLineToGoOffHook) {
    start_with_two_lines();
    EXPECT_EQ(dial("123", "KL1001", "P1", true), kal_ResponseCode_OK);
    EXPECT_EQ(dial("456", "KL1001", "P2", true), kal_ResponseCode_ERR_ResourceBusy);
    EXPECT_EQ(dial("789", "KL100", "P3", true), kal_ResponseCode_ERR_NoResource);

    ASSERT_EQ(zr_->send("offhook"), "ok sent P");  // another line's pickup leaves it
    ASSERT_EQ(kl_->send("offhook"), "ok sent P");
    EXPECT_EQ(kl_->send("wait-command D"), "ok D digits=123");
    EXPECT_EQ(zr_->send("wait-command D 0"), "error timed out waiting for command D");

    // Sent, so no longer parked.
    EXPECT_EQ(dial("456", "KL1001", "P2", true), kal_ResponseCode_OK);
}

TEST_F(LineRequestsTest, AWildcardDialGoesToTheFirstLineOffHook) {
    start_with_two_lines();
    BusClient other("/com/example/Other");
    ASSERT_EQ(other.registerApp().str(), kal_ResponseCode_OK);

    EXPECT_EQ(dial("777", "", "W1", true), kal_ResponseCode_OK);
    EXPECT_EQ(dial(other, "888", "", "W2", true), kal_ResponseCode_ERR_ResourceBusy);

    ASSERT_EQ(zr_->send("offhook"), "ok sent P");
    EXPECT_EQ(zr_->send("wait-command D"), "ok D digits=777");
    // Taken: the next one waits for the next pickup.
    EXPECT_EQ(dial(other, "888", "", "W2", true), kal_ResponseCode_OK);
    ASSERT_EQ(kl_->send("offhook"), "ok sent P");
    EXPECT_EQ(kl_->send("wait-command D"), "ok D digits=888");
}

TEST_F(LineRequestsTest, CancellingTakesTheWildcardDialFirstThenTheLines) {
    start_with_two_lines();
    EXPECT_EQ(dial("555", "KL1001", "T", true), kal_ResponseCode_OK);
    EXPECT_EQ(dial("666", "", "T", true), kal_ResponseCode_OK);

    EXPECT_EQ(cancel("T"), kal_ResponseCode_OK);
    EXPECT_EQ(dial("1", "KL1001", "X", true), kal_ResponseCode_ERR_ResourceBusy);
    EXPECT_EQ(dial("2", "", "X", true), kal_ResponseCode_OK) << "the wildcard dial stayed";
    EXPECT_EQ(cancel("X"), kal_ResponseCode_OK);

    EXPECT_EQ(cancel("T"), kal_ResponseCode_OK);
    EXPECT_EQ(cancel("T"), kal_ResponseCode_ERR_NoResource);
    EXPECT_EQ(dial("3", "KL1001", "Y", true), kal_ResponseCode_OK) << "the line's dial stayed";
    EXPECT_TRUE(logged("DEBUG: Found token. Cancelling dial of 555 on line KL1001\n")) << log();
}

TEST_F(LineRequestsTest, WithNoLineUpAWildcardDialIsRefusedAndParksNothing) {
    start_daemon();
    EXPECT_THAT(client_->call("Resources", "").strings(), IsEmpty());
    EXPECT_EQ(dial("1", "", "W", true), kal_ResponseCode_ERR_NoResource);

    ports_.add_adapter(1, "KL3003");
    ASSERT_TRUE(wait_for([&] { return !client_->call("Resources", "").strings().empty(); }))
        << log();
    EXPECT_EQ(dial("2", "", "W", true), kal_ResponseCode_OK) << "the refused dial was parked";
}

TEST_F(LineRequestsTest, FullRescanKeepsRunningLinesAsTheyAre) {
    start_with_two_lines();
    const std::string orders = kl_->send("orders");

    EXPECT_TRUE(client_->call("FullResourceRescan", "").ok());
    EXPECT_TRUE(wait_for([&] { return logged("2 QLXs left after rescan"); })) << log();
    EXPECT_TRUE(logged("DEBUG: fullResourceRescan requested. Lock and set full rescan flag\n"));
    EXPECT_TRUE(logged("Rescanned QLX0 is old QLX0."));
    EXPECT_TRUE(logged("Rescanned QLX1 is old QLX1."));
    // The same line monitor, on the same connection.
    EXPECT_EQ(kl_->send("orders"), orders);
    EXPECT_FALSE(logged("Trying to restart"));
}

TEST_F(LineRequestsTest, LinePreferencesReplaceTheConfigurationAndReadBack) {
    write_file(qlxconfig_path(),
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<plist version=\"1.0\"><dict>"
               "<key>KALVMSilenceDetection</key><integer>1</integer>"
               "<key>Line</key><string>old</string>"
               "</dict></plist>\n");
    start_with_two_lines();

    const ValueDict prefs = {
        {"Line", Value("KL1001")},
        {"Rings", Value(int32_t{4})},
        {"Big", Value(int64_t{1} << 40)},
        {"Least", Value(INT64_MIN)},
        {"Escaped", Value("a <b> & \"c\"")},
        {"Raw", Value(Bytes{0, 1, 0xfe, 0xff})},
        {"Announce", Value(true)},
        {"Volume", Value(0.75)},
        {"Lines", Value(ValueDict{{"KL1001", Value(ValueDict{{"Answer", Value(false)}})}})},
        {"Order", Value(ValueArray{Value("ZR2002"), Value("KL1001")})},
    };
    BusReply set = client_->callWith("SetLinePreferences",
                                     [&](sd_bus_message* m) { return bus::append_dict(m, prefs); });
    ASSERT_TRUE(set.ok()) << set.errorMessage;

    BusReply got = client_->call("LinePreferences", "");
    ASSERT_TRUE(got.ok()) << got.errorMessage;
    ValueDict back;
    ASSERT_GE(bus::read_dict(got.message.get(), back), 0);
    EXPECT_EQ(back, prefs);

    // An empty dictionary is nil: the file stays as it is.
    const std::string before = read_file(qlxconfig_path());
    ASSERT_TRUE(client_
                    ->callWith("SetLinePreferences",
                               [](sd_bus_message* m) { return bus::append_dict(m, {}); })
                    .ok());
    EXPECT_EQ(read_file(qlxconfig_path()), before);
}

TEST_F(LineRequestsTest, SystemWideDebugLevelReachesTheLogTheFileTheLinesAndTheClients) {
    start_with_two_lines();
    ASSERT_TRUE(client_->subscribe(kal_PleaseChangeDebugLevel).ok());
    const auto usr1_count = [](LineSimControl& line, int n) {
        return wait_for([&] {
            return line.send("status").find(" usr1=" + std::to_string(n) + " ") !=
                   std::string::npos;
        });
    };
    const auto broadcasts = [&](int32_t level) {
        int n = 0;
        for (const auto& r : client_->received())
            n += r.name == kal_PleaseChangeDebugLevel && r.object == Value(level) &&
                 r.userInfo == ValueDict{{kal_DebugLevel, Value(level)}};
        return n;
    };

    ASSERT_TRUE(client_->call("SetSystemWideDebugLevel", "ib", 5, 1).ok());
    EXPECT_EQ(read_file(debuglevel_path()), std::string("\x05\n", 2));
    struct stat st {};
    ASSERT_EQ(stat(debuglevel_path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_TRUE(logged("NOTICE: ===== DEBUG LEVEL SET TO NOTICE =====\n"));
    EXPECT_TRUE(usr1_count(*kl_, 1));
    EXPECT_TRUE(usr1_count(*zr_, 1));
    EXPECT_TRUE(pump_until({client_.get()}, [&] { return broadcasts(5) == 1; }));

    // Not written: the file keeps the last level written.
    ASSERT_TRUE(client_->call("SetSystemWideDebugLevel", "ib", 7, 0).ok());
    EXPECT_TRUE(logged("NOTICE: ===== DEBUG LEVEL SET TO DEBUG =====\n"));
    EXPECT_TRUE(usr1_count(*kl_, 2));
    EXPECT_TRUE(usr1_count(*zr_, 2));
    EXPECT_TRUE(pump_until({client_.get()}, [&] { return broadcasts(7) == 1; }));
    EXPECT_EQ(read_file(debuglevel_path()), std::string("\x05\n", 2));
}

}  // namespace

namespace {

// The daemon's resident memory in KiB.
long resident_kib(pid_t pid) {
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const auto at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : std::stol(status.substr(at + 6));
}

TEST_F(LineRequestsTest, TextsLongerThanTheLineCanCarryAreRefusedBeforeAnythingIsQueued) {
    start_with_two_lines();
    const auto text = [](size_t n, char c = '5') { return std::string(n, c); };
    struct Case {
        const char* desc;
        std::function<BusReply(const std::string&)> call;
        size_t limit;  // the longest accepted
        std::string accepted;
    } cases[] = {
        {"dial string",
         [&](const std::string& t) {
             return client_->call("Dial", "sssb", t.c_str(), "NONE", "T", 0);
         },
         4094, kal_ResponseCode_OK},
        {"dial token",
         [&](const std::string& t) {
             return client_->call("Dial", "sssb", "5", "NONE", t.c_str(), 0);
         },
         254, kal_ResponseCode_OK},
        {"number",
         [&](const std::string& t) {
             return client_->call("PlaceCallOnResource", "sss", "NONE", t.c_str(), "T");
         },
         254, kal_ResponseCode_OK},
        {"serial",
         [&](const std::string& t) {
             return client_->call("HangUpResource", "ss", t.c_str(), "T");
         },
         1023, kal_ResponseCode_OK},
        {"reversal text",
         [&](const std::string& t) {
             return client_->call("PerformTRVOnResource", "ssi", "NONE", t.c_str(), 0);
         },
         4090, kal_ResponseCode_OK},
        {"audio path",
         [&](const std::string& t) {
             const std::string path = "/" + t.substr(1);
             return client_->call("NextVMCheckMessage", "sss", "NONE", "T", path.c_str());
         },
         1023, kal_ResponseCode_ERR_NoResource},
        {"mailbox choice",
         [&](const std::string& t) {
             const char* choices[] = {t.c_str(), nullptr};
             return client_->callWith("BeginVMNodeForResource", [&](sd_bus_message* m) {
                 int r = sd_bus_message_append(m, "ssss", "NONE", "T", "/ogm", "");
                 if (r >= 0)
                     r = sd_bus_message_append_strv(m, const_cast<char**>(choices));
                 return r < 0 ? r : sd_bus_message_append(m, "iiis", 10, 0, 0, "");
             });
         },
         256, kal_ResponseCode_OK},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        EXPECT_EQ(c.call(text(c.limit)).str(), c.accepted);
        EXPECT_EQ(c.call(text(c.limit + 1)).str(), kal_ResponseCode_ERR_MalformedRequest);
    }

    // Refused at once, however often, and nothing reaches the line.
    const long before = resident_kib(daemon_->pid());
    const std::string mebibyte = text(1 << 20);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(dial(mebibyte.c_str(), "KL1001", "BIG", false),
                  kal_ResponseCode_ERR_MalformedRequest);
    EXPECT_EQ(kl_->send("wait-command D 0"), "error timed out waiting for command D");
    // A queued one would hold a mebibyte for each of its million digit
    // events; what is left is the requests themselves (and, under a
    // sanitizer, the memory it keeps back after they were freed).
    EXPECT_LT(resident_kib(daemon_->pid()) - before, 128 * 1024);
    EXPECT_EQ(dial("123", "KL1001", "SMALL", false), kal_ResponseCode_OK);
    EXPECT_EQ(kl_->send("wait-command D"), "ok D digits=123");
}

}  // namespace
