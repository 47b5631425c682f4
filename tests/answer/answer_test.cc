// kal-answer as installed: the daemon with a fake adapter and the line
// simulator on a private bus, kal-answer as its own process with a
// configuration file, and the test reading the outcome through kal-answer's
// D-Bus interface as kalctl does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <fstream>
#include <regex>
#include <set>

#include "answer/answer_client.h"
#include "answer/audio.h"
#include "answer/bus_service.h"
#include "answer_fixture.h"
#include "service/sd_bus_handles.h"

using namespace kal;
using namespace kal::answer;
using namespace kal::test;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

TEST_F(AnswerTest, AfterTheRingsTheGreetingPlaysAndTwoLeavesAMessageInMailboxTwo) {
    configure();
    start_answer();
    LineSimControl line("KL1001");
    const int64_t before = ::time(nullptr);

    // The 44.1 kHz stereo greeting, converted to the line's format.
    const std::string play = ring_until_answered(line, "5551234 JANE DOE");
    ASSERT_THAT(play, StartsWith("ok P ")) << answer_log();
    const std::string greeting = field(play, "path");
    EXPECT_THAT(greeting, HasSubstr("/var/lib/kal-answer/greetings/main-"));
    EXPECT_NEAR(static_cast<double>(read_raw(greeting).size()), 60.0 * 8000, 100);

    ASSERT_THAT(line.send("digits 2"), StartsWith("ok sent # digit=2"));
    const std::string mailbox = line.send("wait-command P 20");
    EXPECT_THAT(mailbox, HasSubstr("/greetings/two-"));
    const std::string record = line.send("wait-command R 20");
    ASSERT_THAT(record, StartsWith("ok R ")) << answer_log();
    EXPECT_THAT(field(record, "path"), HasSubstr("/var/tmp/kal-answer/"));

    // The simulator records max_message_length (3 s) of its tone.
    const auto list = messages_when(1);
    ASSERT_EQ(list.size(), 1u);
    const MessageInfo& m = list[0];
    EXPECT_EQ(m.mailbox, 2);
    EXPECT_EQ(m.line, "KL1001");
    EXPECT_EQ(m.callerNumber, "5551234");
    EXPECT_EQ(m.callerName, "JANE DOE");
    EXPECT_GE(m.received, before);
    EXPECT_LE(m.received, ::time(nullptr));
    EXPECT_EQ(m.durationMs, 3000);
    EXPECT_EQ(m.state, "new");

    const AudioInfo wav = fetch(m.id);
    EXPECT_EQ(wav.rate, 8000);
    EXPECT_EQ(wav.channels, 1);
    EXPECT_EQ(wav.frames, 3 * 8000);
    EXPECT_THAT(wav.format, HasSubstr("WAV"));

    // The recording was the daemon's only while it needed it; the call log
    // has the call.
    EXPECT_TRUE(list_dir(root_.path() + "/var/tmp/kal-answer").empty());
    AnswerClient client;
    EXPECT_EQ(client.messagesWaiting(), 1u);
    const auto calls = client.listCalls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls[0].outcome, "message");
    EXPECT_EQ(calls[0].messageId, m.id);
}

TEST_F(AnswerTest, ACorruptGreetingIsRefusedAndTheLineKeepsThePreviousOne) {
    configure();
    start_answer();
    LineSimControl line("KL1001");
    const std::string first = field(ring_until_answered(line, ""), "path");
    ASSERT_FALSE(first.empty()) << answer_log();
    line.send("reversal");
    line.send("wait-command H 20");

    write_file(greetings_ + "/broken.wav", "RIFF\x24\x00\x00\x00WAVEjunkjunkjunk");
    write_file(root_.path() + "/etc/kal-answer.conf",
               "[answer]\nrings = 2\ngreeting = " + greetings_ + "/broken.wav\n");
    answer_->signal(SIGHUP);
    ASSERT_TRUE(wait_for([&] { return answer_count("keeping the configuration we had") == 1; }))
        << answer_log();
    EXPECT_THAT(answer_log(),
                HasSubstr("kal-answer.conf:3: key 'greeting' in [answer]: cannot read " +
                          greetings_ + "/broken.wav as audio"));

    EXPECT_EQ(field(ring_until_answered(line, ""), "path"), first);
}

TEST_F(AnswerTest, ACorruptGreetingAtStartUpIsAClearError) {
    write_file(greetings_ + "/broken.wav", "not audio at all");
    write_file(root_.path() + "/etc/kal-answer.conf",
               "[answer]\n[mailbox 1]\nbusy_greeting = " + greetings_ + "/broken.wav\n");
    ChildProcess answer({bin_path("kal-answer"), "--sounds", KAL_TEST_SOUNDS_DIR}, {},
                        root_.path() + "/answer-0.txt");
    const int status = answer.wait_exit();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_THAT(answer_log(), HasSubstr("kal-answer.conf:3: key 'busy_greeting' in [mailbox 1]"));
}

TEST_F(AnswerTest, KilledInTheMiddleOfAMessageItLosesNothingItHadAndListsNoHalfMessage) {
    configure();
    start_answer();
    LineSimControl line("KL1001");
    leave_message(line, "5551111 FIRST");
    const auto first = messages_when(1);
    ASSERT_EQ(first.size(), 1u);

    // A second caller speaks for a minute; kal-answer dies as they do.
    write_file(root_.path() + "/etc/kal-answer.conf",
               "[answer]\nrings = 2\nmax_message_length = 60\nmin_message_length = 1\n");
    answer_->signal(SIGHUP);
    ASSERT_TRUE(wait_for([&] { return answer_count("configuration read again") == 1; }));
    ASSERT_THAT(ring_until_answered(line, "5552222 SECOND"), StartsWith("ok P "));
    ASSERT_THAT(line.send("wait-command R 20"), StartsWith("ok R "));
    answer_->signal(SIGKILL);
    answer_->wait_exit();
    answer_.reset();

    start_answer();
    EXPECT_THAT(answer_log(), HasSubstr("1 calls closed as interrupted"));
    AnswerClient client;
    const auto after = client.listMessages();
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0].id, first[0].id);
    EXPECT_EQ(after[0].callerNumber, "5551111");
    EXPECT_EQ(fetch(after[0].id).frames, 3 * 8000);
    const auto calls = client.listCalls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[0].callerNumber, "5552222");
    EXPECT_EQ(calls[0].outcome, "interrupted");
}

TEST_F(AnswerTest, AfterTheDaemonRestartsItRegistersAgainAndAnswersTheNextCall) {
    configure();
    start_answer();
    stop_daemon();
    ASSERT_TRUE(wait_for([&] { return answer_count("kaldevicemaster went away") == 1; }))
        << answer_log();
    start_daemon("Adding logtrasher thread", {"KAL_LINESIM_SPEED=100"});
    ASSERT_TRUE(wait_for([&] { return answer_count("registered with kaldevicemaster") == 2; }))
        << answer_log();

    LineSimControl line("KL1001");
    ASSERT_THAT(ring_until_answered(line, "5553333 AFTER"), StartsWith("ok P ")) << answer_log();
    const auto list = messages_when(1);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].callerNumber, "5553333");
    EXPECT_EQ(list[0].mailbox, 1);
}

// While the system bus is gone kal-answer keeps trying to reach it; a stop
// (systemctl's SIGTERM) must still end it at once, not after the unit's
// stop timeout.
TEST_F(AnswerTest, WithoutABusItRetriesAndStillStopsOnSigterm) {
    configure();
    start_answer();
    stop_daemon();
    bus_.stop();
    ASSERT_TRUE(wait_for([&] { return answer_count("connecting again") >= 2; })) << answer_log();
    answer_->signal(SIGTERM);
    const int status = answer_->wait_exit(5s);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << answer_log();
    answer_.reset();
}

TEST_F(AnswerTest, KalctlListsPlaysMarksAndDeletesMessagesAndShowsTheCalls) {
    configure();
    start_answer();
    LineSimControl line("KL1001");
    leave_message(line, "5551234 JANE DOE");
    leave_message(line, "");
    const auto list = messages_when(2);
    ASSERT_EQ(list.size(), 2u);

    Outcome o = kalctl({"messages"});
    EXPECT_EQ(o.status, 0) << o.out;
    EXPECT_THAT(o.out, HasSubstr("5551234 JANE DOE"));
    EXPECT_THAT(o.out, HasSubstr("withheld"));
    EXPECT_THAT(o.out, HasSubstr("3.0 s  new"));

    const std::string wav = root_.path() + "/exported.wav";
    o = kalctl({"messages", "play", std::to_string(list[0].id), wav});
    EXPECT_EQ(o.status, 0) << o.out;
    EXPECT_THAT(o.out, HasSubstr("8000 Hz, 1 channel, 3.0 s"));
    EXPECT_EQ(probe_audio(wav).frames, 3 * 8000);

    EXPECT_EQ(kalctl({"messages", "heard", std::to_string(list[0].id)}).status, 0);
    EXPECT_EQ(kalctl({"messages", "delete", std::to_string(list[1].id)}).status, 0);
    AnswerClient client;
    const auto after = client.listMessages();
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0].state, "heard");
    EXPECT_EQ(client.messagesWaiting(), 0u);

    o = kalctl({"messages", "delete", std::to_string(list[1].id)});
    EXPECT_EQ(o.status, 1);
    EXPECT_THAT(o.out, HasSubstr("There is no message"));

    o = kalctl({"calls"});
    EXPECT_EQ(o.status, 0) << o.out;
    EXPECT_THAT(o.out, HasSubstr("message #" + std::to_string(list[0].id)));

    answer_->signal(SIGTERM);
    answer_->wait_exit();
    answer_.reset();
    o = kalctl({"messages"});
    EXPECT_EQ(o.status, 3);
    EXPECT_THAT(o.out, HasSubstr("kal-answer is not running"));
}

TEST_F(AnswerTest, TheOwnerChecksRemotelyWithThePinAndSavesTheMessage) {
    configure("remote_check_digit = *\n[mailbox 1]\npin = 1234");
    start_answer();
    LineSimControl line("KL1001");
    leave_message(line, "");
    const auto left = messages_when(1);

    // The owner calls, presses * during the greeting, then the PIN.
    call_in_for_pin(line);
    line.send("digits 1234");
    const std::string menu = line.send("wait-command P 20");
    EXPECT_THAT(menu, HasSubstr("/var/tmp/kal-answer/check-menu")) << answer_log();
    // 1: the new messages. The first comes with its spoken envelope.
    press_during_menu(line, "1");
    const std::string message = line.send("wait-command P 20");
    ASSERT_THAT(message, HasSubstr("/var/tmp/kal-answer/message-")) << answer_log();
    EXPECT_THAT(line.send("wait-command P 20"), HasSubstr("message-menu.raw"));
    // 2: save it. No more new messages: back to the main menu.
    press_during_menu(line, "2");
    EXPECT_THAT(line.send("wait-command P 20"), HasSubstr("/var/tmp/kal-answer/check-menu"));
    // The owner hangs up: the check ends with the line, and the exchange's
    // busy tone tells kal-answer.
    line.send("reversal");
    line.send("tone busy");

    last_call_ends("remote-check");
    const auto after = AnswerClient().listMessages();
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0].id, left[0].id);
    EXPECT_EQ(after[0].state, "saved");
}

TEST_F(AnswerTest, ThreeWrongPinsHangUp) {
    configure("remote_check_digit = *\n[mailbox 1]\npin = 1234");
    start_answer();
    LineSimControl line("KL1001");
    call_in_for_pin(line);
    for (int attempt = 1; attempt <= 3; ++attempt) {
        line.send("digits 4321");
        // The prompt again, once the daemon stops waiting for keys.
        if (attempt < 3) {
            EXPECT_THAT(line.send("wait-command P 20"), HasSubstr("enter-pin.raw")) << answer_log();
        }
    }
    ASSERT_TRUE(wait_for([&] { return answer_count("wrong PIN (3 of 3)") == 1; })) << answer_log();
    EXPECT_EQ(answer_count("wrong PIN"), 3) << answer_log();
    EXPECT_THAT(line.send("wait-command H 20"), StartsWith("ok H")) << answer_log();
    EXPECT_EQ(AnswerClient().listCalls()[0].outcome, "no-message");
}

TEST_F(AnswerTest, TheOwnerRecordsANewGreetingOverThePhone) {
    configure("remote_check_digit = *\n[mailbox 1]\npin = 1234");
    start_answer();
    LineSimControl line("KL1001");
    // *, then 9 and the PIN: record a greeting (the simulator records its
    // tone for the 60 s allowed).
    call_in_for_pin(line);
    line.send("digits 91234");
    EXPECT_THAT(line.send("wait-command P 20"), HasSubstr("record-greeting.raw")) << answer_log();
    ASSERT_THAT(line.send("wait-command R 20"), StartsWith("ok R "));
    ASSERT_TRUE(wait_for([&] { return answer_count("a new greeting for mailbox 1, ") == 1; }))
        << answer_log();
    ASSERT_THAT(line.send("wait-command H 20"), StartsWith("ok H"));

    // The next caller hears it instead of the configured greeting.
    const std::string greeting = field(ring_until_answered(line, ""), "path");
    EXPECT_THAT(greeting, HasSubstr("/greetings/recorded-mailbox-1-"));
    EXPECT_EQ(read_raw(greeting).size(), 60u * 8000);
}

TEST_F(AnswerTest, BlockedNumbersAreHungUpOnAndCallsThatStopRingingAreLogged) {
    configure("block = 555*, withheld");
    start_answer();
    LineSimControl line("KL1001");
    line.send("callerid 5550000 SALES");
    line.send("ring");
    line.send("ring");
    EXPECT_THAT(line.send("wait-command H 20"), StartsWith("ok H")) << answer_log();

    // One ring from someone allowed, who gives up.
    line.send("clear");
    line.send("callerid 4441234 PATIENT");
    line.send("ring");
    last_call_ends("unanswered");
    AnswerClient client;
    const auto calls = client.listCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].callerNumber, "4441234");
    EXPECT_EQ(calls[1].callerNumber, "5550000");
    EXPECT_EQ(calls[1].outcome, "blocked");
    EXPECT_THAT(line.send("commands"), Not(HasSubstr("P ")));
    EXPECT_TRUE(client.listMessages().empty());
}

TEST_F(AnswerTest, WithMessagesWaitingTheTollSaverAnswersSoonerAndFaxCallsAreHandedOn) {
    write_file(root_.path() + "/etc/kal-answer.conf",
               "[answer]\nrings = 3\ntoll_saver_rings = 1\nmax_message_length = 3\n"
               "min_message_length = 1\n");
    start_answer();
    LineSimControl line("KL1001");
    line.send("ring");
    line.send("ring");
    EXPECT_THAT(line.send("wait-command P 1"), HasSubstr("timed out"));  // two rings: not yet
    line.send("ring");
    ASSERT_THAT(line.send("wait-command P 20"), StartsWith("ok P ")) << answer_log();
    ASSERT_THAT(line.send("wait-command H 20"), StartsWith("ok H"));
    messages_when(1);

    // A message waits: the first ring is answered. A fax machine calls.
    line.send("clear");
    line.send("ring");
    ASSERT_THAT(line.send("wait-command P 20"), StartsWith("ok P ")) << answer_log();
    line.send("tone fax");
    last_call_ends("fax");
    // The line is the fax machine's now: kal-answer does not hang up.
    EXPECT_THAT(line.send("wait-command H 1"), HasSubstr("timed out"));
}

TEST_F(AnswerTest, MessagesShorterThanTheMinimumAreDropped) {
    write_file(root_.path() + "/etc/kal-answer.conf",
               "[answer]\nrings = 2\nmax_message_length = 3\nmin_message_length = 5\n");
    start_answer();
    LineSimControl line("KL1001");
    leave_message(line, "5551234 JANE DOE");
    last_call_ends("no-message");
    EXPECT_TRUE(AnswerClient().listMessages().empty());
    EXPECT_TRUE(list_dir(root_.path() + "/var/tmp/kal-answer").empty());
}

TEST_F(AnswerTest, LinesPluggedInAreAnsweredAndLinesPulledOutAreLetGo) {
    configure();
    start_answer();
    const std::string port = ports_.add_adapter(2, "ZR2002");
    ASSERT_TRUE(wait_for([&] { return answer_count("ZR2002: answering this line") == 1; }))
        << answer_log();
    LineSimControl line("ZR2002");
    ASSERT_THAT(ring_until_answered(line, "5554444 PLUGGED"), StartsWith("ok P ")) << answer_log();
    const auto list = messages_when(1);
    EXPECT_EQ(list[0].line, "ZR2002");

    ports_.unplug(port);
    EXPECT_TRUE(wait_for([&] { return answer_count("ZR2002: the line is gone") == 1; }))
        << answer_log();
}

TEST_F(AnswerTest, NewMessagesAreDeliveredToTheOutboundNumber) {
    configure("outbound_delivery = yes\noutbound_number = 5550100");
    start_answer();
    LineSimControl line("KL1001");
    ASSERT_THAT(ring_until_answered(line, "5551234 JANE DOE"), StartsWith("ok P "));
    messages_when(1);
    // The daemon dials while it listens to the line, then plays the
    // message (with its envelope) to whoever answered.
    ASSERT_THAT(line.send("wait-command R 20"), HasSubstr("/message-"));  // the message
    const std::string dial = line.send("wait-command R 20");
    ASSERT_THAT(dial, HasSubstr("dial=5550100")) << answer_log();
    line.send("silence");
    const std::string play = line.send("wait-command P 20");
    EXPECT_THAT(play, HasSubstr("/var/tmp/kal-answer/outbound")) << answer_log();
    // Once the delivery is over, nothing is left in the spool.
    EXPECT_TRUE(wait_for([&] { return list_dir(root_.path() + "/var/tmp/kal-answer").empty(); }))
        << answer_log();
}

// The interface file is the contract desktop programs read: every member
// it names is served, and the service serves nothing it leaves out.
TEST_F(AnswerTest, ServesExactlyTheInterfaceItsXmlDescribes) {
    configure();
    start_answer();
    sd_bus* raw = nullptr;
    ASSERT_GE(sd_bus_open_system(&raw), 0);
    BusPtr bus(raw);
    BusError error;
    sd_bus_message* reply = nullptr;
    ASSERT_GE(sd_bus_call_method(raw, kAnswerBusName, kAnswerObjectPath,
                                 "org.freedesktop.DBus.Introspectable", "Introspect", error.get(),
                                 &reply, ""),
              0);
    MessagePtr own(reply);
    const char* xml = nullptr;
    ASSERT_GT(sd_bus_message_read_basic(reply, 's', &xml), 0);
    const std::string served = xml;
    const std::string contract =
        read_file(std::string(KAL_SOURCE_DIR) + "/data/dbus/com.orvane.answer.xml");
    const std::regex member("<(method|signal|property) name=\"([A-Za-z]+)\"");
    const auto members = [&](const std::string& text) {
        std::set<std::string> out;
        for (std::sregex_iterator it(text.begin(), text.end(), member), end; it != end; ++it)
            out.insert((*it)[1].str() + " " + (*it)[2].str());
        return out;
    };
    const auto ours = [&] {
        // Only our interface's part of the introspection.
        const size_t at = served.find("interface name=\"com.orvane.KALAnswer\"");
        return served.substr(at, served.find("</interface>", at) - at);
    }();
    EXPECT_EQ(members(ours), members(contract));
}

TEST_F(AnswerTest, ANewMessageIsSignalledAndTheCommandRunsWithItsDetails) {
    const std::string seen = root_.path() + "/announced.txt";
    configure("announce_command = env | grep ^KAL_MESSAGE | sort > " + seen);
    start_answer();
    // Listen for the signal as a desktop notifier would.
    sd_bus* raw = nullptr;
    ASSERT_GE(sd_bus_open_system(&raw), 0);
    BusPtr bus(raw);
    uint32_t waiting = 0;
    std::string from;
    sd_bus_slot* slot = nullptr;
    struct Seen {
        uint32_t* waiting;
        std::string* from;
    } target{&waiting, &from};
    ASSERT_GE(sd_bus_match_signal(
                  raw, &slot, kAnswerBusName, kAnswerObjectPath, kAnswerInterface, "NewMessage",
                  [](sd_bus_message* m, void* userdata, sd_bus_error*) {
                      auto* t = static_cast<Seen*>(userdata);
                      int64_t id, received, duration;
                      int32_t mailbox;
                      const char *line, *number, *name;
                      sd_bus_message_read(m, "xisssxxu", &id, &mailbox, &line, &number, &name,
                                          &received, &duration, t->waiting);
                      *t->from = number;
                      return 0;
                  },
                  &target),
              0);
    SlotPtr own_slot(slot);

    LineSimControl line("KL1001");
    ASSERT_THAT(ring_until_answered(line, "5551234 JANE DOE"), StartsWith("ok P "));
    ASSERT_TRUE(wait_for([&] {
        while (sd_bus_process(raw, nullptr) > 0) {
        }
        return waiting > 0;
    })) << answer_log();
    EXPECT_EQ(waiting, 1u);
    EXPECT_EQ(from, "5551234");

    ASSERT_TRUE(wait_for([&] { return read_file(seen).find("WAITING") != std::string::npos; }));
    const std::string env = read_file(seen);
    EXPECT_THAT(env, HasSubstr("KAL_MESSAGE_CALLER_NUMBER=5551234\n"));
    EXPECT_THAT(env, HasSubstr("KAL_MESSAGE_CALLER_NAME=JANE DOE\n"));
    EXPECT_THAT(env, HasSubstr("KAL_MESSAGE_DURATION=3.0\n"));
    EXPECT_THAT(env, HasSubstr("KAL_MESSAGE_MAILBOX=1\n"));
    EXPECT_THAT(env, HasSubstr("KAL_MESSAGE_LINE=KL1001\n"));
    EXPECT_THAT(env, HasSubstr("KAL_MESSAGES_WAITING=1\n"));
    const std::string file = [&] {
        const size_t at = env.find("KAL_MESSAGE_FILE=") + 17;
        return env.substr(at, env.find('\n', at) - at);
    }();
    EXPECT_EQ(probe_audio(file).frames, 3 * 8000);
}

}  // namespace
