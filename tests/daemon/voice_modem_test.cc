// Whole calls on a voice modem: the daemon finds the emulated modem through
// udev (umockdev), starts V253LineMonitor on its port, and clients on the
// private bus drive voicemail, recording, fax hand-over and dialing while
// the test plays the caller through the emulator's control socket.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>

#include "base/paths.h"
#include "bus_client.h"
#include "daemon_fixture.h"
#include "modemsim_control.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr const char kSerial[] = "12345678";  // the emulated modem's USB serial
constexpr const char kOK[] = "KALResponseCodeOK";

class VoiceModemDaemonTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        std::error_code ec;
        std::filesystem::remove(v253_linemonitor_path(), ec);
        std::filesystem::create_symlink(bin_path("V253LineMonitor"), v253_linemonitor_path());
        install_tone450();
    }
    void TearDown() override {
        stop_daemon();
        if (HasFailure()) {  // the line monitor's own account, from the daemon's standard error
            const std::string err = read_file(root_.path() + "/stderr.txt");
            fprintf(stderr, "--- line monitor\n%s\n",
                    err.substr(err.size() > 4000 ? err.size() - 4000 : 0).c_str());
        }
    }

    // The modem plugged in with `quirks`, the daemon started, a client
    // registered and subscribed to `names`.
    void start(std::vector<std::string> quirks = {},
               std::vector<std::string> names = {"RequestComplete"}, double speed = 100) {
        VoiceModemOptions o;
        o.quirks = std::move(quirks);
        o.speed = speed;
        auto m = ports_.add_voice_modem(o);
        modem_ = &m.sim;
        devnode_ = m.port.devnode;
        start_daemon("Vending Listener");
        client_ = std::make_unique<BusClient>();
        ASSERT_TRUE(wait_for([&] { return client_->registerApp().ok(); })) << log();
        for (const auto& n : names)
            ASSERT_TRUE(client_->subscribe(n).ok());
    }
    // The line monitor has the modem in voice mode.
    void wait_modem_ready() {
        ASSERT_THAT(modem_->send("wait-command AT+VIT"), StartsWith("ok")) << log();
    }
    std::string sim(const std::string& command) { return modem_->send(command); }
    void expect_sim(const std::string& command) {
        EXPECT_THAT(sim(command), StartsWith("ok")) << command << "\n" << log();
    }

    std::string file(const std::string& name, const std::string& bytes) {
        const std::string path = root_.path() + "/" + name;
        write_file(path, bytes);
        return path;
    }
    std::vector<ValueDict> all(const std::string& name, const std::string& token) {
        std::vector<ValueDict> out;
        for (const auto& n : client_->received())
            if (n.name == name && n.userInfo.count("KALToken") &&
                n.userInfo.at("KALToken").str() == token)
                out.push_back(n.userInfo);
        return out;
    }
    // The first `name` for `token` the client received.
    ValueDict received(const std::string& name, const std::string& token) {
        pump_until({client_.get()}, [&] { return !all(name, token).empty(); });
        auto got = all(name, token);
        return got.empty() ? ValueDict{} : got.front();
    }
    std::string completion(const std::string& token) {
        return received("RequestComplete", token)["KALResponseCode"].str();
    }
    ValueDict notification(const std::string& name) {
        ValueDict info;
        pump_until({client_.get()}, [&] {
            for (const auto& n : client_->received())
                if (n.name == name)
                    info = n.userInfo;
            return !info.empty();
        });
        return info;
    }
    // A voicemail session; `pause` seconds after the greeting wait for a choice.
    BusReply voicemail(const std::string& token, const std::string& ogm, const std::string& icm,
                       std::vector<const char*> choices, int pause = 0) {
        return client_->callWith("BeginVMNodeForResource", [&](sd_bus_message* m) {
            int r =
                sd_bus_message_append(m, "ssss", kSerial, token.c_str(), ogm.c_str(), icm.c_str());
            if (r >= 0)
                r = sd_bus_message_open_container(m, 'a', "s");
            for (const char* c : choices)
                if (r >= 0)
                    r = sd_bus_message_append(m, "s", c);
            if (r >= 0)
                r = sd_bus_message_close_container(m);
            if (r >= 0)
                r = sd_bus_message_append(m, "iiis", 30, pause, 0, "");
            return r;
        });
    }
    int device_type() {
        BusReply r = client_->call("DeviceTypeForResource", "s", kSerial);
        int32_t t = -1;
        if (r.ok())
            sd_bus_message_read(r.message.get(), "i", &t);
        return t;
    }
    // How many sockets the daemon has open.
    int daemon_sockets() {
        const std::string dir = "/proc/" + std::to_string(daemon_->pid()) + "/fd/";
        int n = 0;
        for (const auto& f : list_dir(dir)) {
            std::error_code ec;
            if (std::filesystem::read_symlink(dir + f, ec).string().rfind("socket:", 0) == 0)
                ++n;
        }
        return n;
    }

    ModemSim* modem_ = nullptr;
    std::string devnode_;
    std::unique_ptr<BusClient> client_;
};

// Two byte strings are the same; on failure the sizes and the first
// difference, not two dumps of seconds of audio.
::testing::AssertionResult SameBytes(const std::string& want, const std::string& got) {
    const size_t n = std::min(want.size(), got.size());
    size_t i = 0;
    while (i < n && want[i] == got[i])
        ++i;
    if (i == n && want.size() == got.size())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "sizes " << want.size() << " and " << got.size()
                                         << ", first difference at byte " << i;
}

// Audio with DLE and end-of-text bytes inside, as a recording might hold.
const std::string kTrickyAudio = std::string("\x80\x10\x10\x81\x10\x03\x7f\x10", 8);

TEST_F(VoiceModemDaemonTest, AWholeVoicemailCallOnTheModem) {
    start({}, {"RequestComplete", "KALRingDetect", "KALCallerID"});
    EXPECT_EQ(device_type(), 3);
    wait_modem_ready();

    // A ring with caller ID reaches the client.
    expect_sim("callerid 5551234 JANE DOE");
    expect_sim("ring");
    EXPECT_FALSE(notification("KALRingDetect").empty()) << log();
    EXPECT_EQ(notification("KALCallerID")["KALCallerIDContentsKey"].str(), "5551234 JANE DOE");

    // The greeting, holding DLE bytes, reaches the modem intact; the caller picks 1.
    const std::string greeting = file("greeting.raw", kTrickyAudio + std::string(4000, '\x80'));
    // (The caller chooses in the pause after the greeting, not during a replay of it.)
    EXPECT_EQ(voicemail("vm-1", greeting, "", {"1", "9"}, 60).str(), kOK);
    expect_sim("wait-command <DLE><ETX>");
    EXPECT_TRUE(SameBytes(read_file(greeting), modem_->played(1)));
    expect_sim("digits 1");
    EXPECT_THAT(completion("vm-1"), HasSubstr("OK")) << log();
    ASSERT_TRUE(wait_for([&] { return logged("Tearing down Node"); })) << log();

    // The mailbox: its greeting, then the caller's message, then a hang-up.
    const std::string message = root_.path() + "/msg-0001.raw";
    expect_sim("audio-hex 80 10 10 81 10 03 7f 10 10 10");
    EXPECT_EQ(voicemail("vm-2", file("mailbox.raw", std::string(800, '\x80')), message, {}).str(),
              kOK);
    expect_sim("wait-command AT+VRX");
    expect_sim("tone busy");
    EXPECT_THAT(completion("vm-2"), HasSubstr("OK_AudioReceived")) << log();
    const std::string got = read_file(message);
    EXPECT_TRUE(SameBytes(modem_->recorded(), got));
    EXPECT_EQ(got.substr(0, 10), std::string("\x80\x10\x10\x81\x10\x03\x7f\x10\x10\x10", 10));
}

TEST_F(VoiceModemDaemonTest, AStopDigitEndsTheGreetingAndFaxToneHandsOver) {
    // Audio at ten times its speed: the greeting lasts long enough to be interrupted.
    start({"bracket=on", "dle-sub=on"}, {"RequestComplete"}, 10);
    wait_modem_ready();
    expect_sim("ring");
    const std::string long_greeting = file("long.raw", std::string(8000 * 60, '\x80'));
    EXPECT_EQ(voicemail("vm-3", long_greeting, "", {"1"}).str(), kOK);
    expect_sim("wait-command AT+VTX");
    expect_sim("digits 1");  // held: repeated inside its brackets
    EXPECT_THAT(completion("vm-3"), HasSubstr("OK")) << log();
    ASSERT_TRUE(wait_for([&] { return logged("Tearing down Node"); })) << log();
    EXPECT_THAT(sim("plays"), HasSubstr("discarded=")) << "the greeting was not flushed";
    // One key press, one digit from the line monitor.
    EXPECT_EQ(count("bytes from QLX0: '#1'"), 1) << log();

    EXPECT_EQ(voicemail("vm-4", long_greeting, "", {"1"}).str(), kOK);
    expect_sim("wait-command AT+VTX");
    expect_sim("tone fax");
    EXPECT_THAT(completion("vm-4"), HasSubstr("OK_FaxWait")) << log();
}

TEST_F(VoiceModemDaemonTest, DialingOutAndAPrivateCaller) {
    start({"vcon=on", "profile=usr", "nmbr-spaces=on"}, {"KALCallerID"});
    wait_modem_ready();
    EXPECT_THAT(sim("wait-command AT+VSM=128"), StartsWith("ok"))
        << "the USR numbering was not chosen";
    expect_sim("callerid private");
    expect_sim("ring");
    EXPECT_EQ(notification("KALCallerID")["KALCallerIDContentsKey"].str(), "PRIVATE");
    BusReply placed = client_->call("PlaceCallOnResource", "sss", kSerial, "5551234", "call-1");
    EXPECT_EQ(placed.str(), kOK) << placed.errorName << " " << placed.errorMessage;
    EXPECT_THAT(sim("wait-command ATDT"), StartsWith("ok ATDT5551234")) << log();
    EXPECT_EQ(client_->call("HangUpResource", "ss", kSerial, "call-1").str(), kOK);
    EXPECT_THAT(sim("wait-command ATH"), StartsWith("ok ATH")) << log();
}

TEST_F(VoiceModemDaemonTest, ARecordingWithABeep) {
    start();
    wait_modem_ready();
    expect_sim("handset off");
    expect_sim("audio-hex 81 10 10 82");
    // The call's earlier part; the beep marks where this one joins it.
    const std::string earlier = std::string(100, '\x7f');
    const std::string rec = file("call.raw", earlier);
    EXPECT_EQ(
        client_->call("BeginCRNodeForResource", "sssssu", kSerial, "cr-1", rec.c_str(), "", "", 1u)
            .str(),
        kOK);
    expect_sim("wait-command AT+VRX");
    EXPECT_EQ(client_->call("StopCRNodeForResource", "s", kSerial).str(), kOK);
    EXPECT_THAT(completion("cr-1"), HasSubstr("OK")) << log();
    const std::string beep = read_file(tone450_path());
    const std::string got = read_file(rec);
    ASSERT_FALSE(beep.empty());
    EXPECT_TRUE(SameBytes(earlier + beep + modem_->recorded(), got));
}

TEST_F(VoiceModemDaemonTest, AScriptMenuBeepsAndPlaysTheClientsAnswer) {
    start({}, {"RequestComplete", "KALPleaseRunActionScriptForCaller"});
    wait_modem_ready();
    expect_sim("ring");
    EXPECT_EQ(
        client_->call("StartScriptNodeForResource", "ssasass", kSerial, "scr", 0, 1, "1", "").str(),
        kOK);
    // The beep answers the ringing line.
    EXPECT_THAT(sim("wait-command AT+VLS=1"), StartsWith("ok")) << log();
    EXPECT_THAT(sim("wait-command AT+VTS=[450,0,50]"), StartsWith("ok")) << log();
    expect_sim("digits 1#");
    ValueDict run = received("KALPleaseRunActionScriptForCaller", "scr");
    ASSERT_TRUE(run["KALSequenceNumber"].is<int32_t>()) << log();
    const std::string answer = file("answer.raw", kTrickyAudio);
    EXPECT_EQ(client_
                  ->call("ScriptCompletedForResource", "ssis", kSerial, "scr",
                         run["KALSequenceNumber"].as<int32_t>(), answer.c_str())
                  .str(),
              kOK);
    expect_sim("wait-command <DLE><ETX>");
    EXPECT_TRUE(SameBytes(kTrickyAudio, modem_->played()));
}

TEST_F(VoiceModemDaemonTest, UnpluggingMidRecordingReportsOnceAndLeavesNothing) {
    start();
    wait_modem_ready();
    expect_sim("ring");
    const std::string message = root_.path() + "/msg.raw";
    EXPECT_EQ(voicemail("vm-5", file("g.raw", std::string(800, '\x80')), message, {}).str(), kOK);
    expect_sim("wait-command AT+VRX");
    const pid_t pid = line_monitor_pid(kSerial);
    ASSERT_GT(pid, 0);
    const int sockets_in_call = daemon_sockets();
    ports_.unplug(devnode_);
    EXPECT_FALSE(completion("vm-5").empty()) << log();
    EXPECT_TRUE(wait_for([&] { return kill(pid, 0) != 0; })) << "the line monitor still runs";
    EXPECT_TRUE(wait_for([&] {
        return client_->call("Resources", "").strings() == std::vector<std::string>{};
    })) << log();
    // Nothing more about the session arrives.
    pump_until(
        {client_.get()}, [] { return false; }, std::chrono::milliseconds(500));
    EXPECT_EQ(all("RequestComplete", "vm-5").size(), 1u);
    // The daemon's end of the line monitor's socket is closed (umockdev's
    // preload library keeps descriptors of its own, so only sockets count).
    EXPECT_EQ(daemon_sockets(), sockets_in_call - 1);
}

TEST_F(VoiceModemDaemonTest, AModemThatRefusesTheVoiceFormatIsGivenUp) {
    start({"vsm-error=on"});
    EXPECT_TRUE(wait_for([&] { return logged("exited normally with return code 4"); })) << log();
}

}  // namespace
