// The message store, audio conversion and configuration of kal-answer,
// without a daemon: real SQLite, real libsndfile and libsamplerate, inih.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "answer/answerer.h"
#include "answer/audio.h"
#include "answer/config.h"
#include "answer/store.h"
#include "audio_fixture.h"
#include "test_support.h"

using namespace kal;
using namespace kal::answer;
using namespace kal::test;
using ::testing::HasSubstr;

namespace {

std::vector<uint8_t> tone_samples(size_t n) {
    std::vector<uint8_t> s(n);
    for (size_t i = 0; i < n; ++i)
        s[i] = static_cast<uint8_t>(128 + 60 * std::sin(2 * M_PI * 400.0 * i / kLineRate));
    return s;
}

class StoreTest : public ::testing::Test {
  protected:
    std::string dir() const { return root_.path() + "/state"; }
    // A finished WAV of `ms` milliseconds, ready to be added.
    std::string wav(int ms) {
        const std::string path = root_.path() + "/incoming-" + std::to_string(++made_) + ".wav";
        write_wav(path, tone_samples(static_cast<size_t>(ms) * kLineRate / 1000));
        return path;
    }
    Message message(int mailbox, const std::string& number) {
        Message m;
        m.mailbox = mailbox;
        m.line = "KL1001";
        m.callerNumber = number;
        m.callerName = "JANE DOE";
        m.received = 1700000000;
        m.durationMs = 1500;
        return m;
    }
    TempRoot root_;
    int made_ = 0;
};

TEST_F(StoreTest, KeepsMessagesWithTheirDetailsAcrossReopening) {
    int64_t first = 0;
    {
        MessageStore store(dir());
        first = store.add_message(message(1, "5551234"), wav(1500)).id;
        store.add_message(message(2, ""), wav(500));
        EXPECT_EQ(store.waiting(), 2);
        EXPECT_EQ(store.waiting(2), 1);
    }
    MessageStore store(dir());
    EXPECT_TRUE(store.last_repair().clean());
    const auto all = store.messages();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].id, first);
    EXPECT_EQ(all[0].mailbox, 1);
    EXPECT_EQ(all[0].line, "KL1001");
    EXPECT_EQ(all[0].callerNumber, "5551234");
    EXPECT_EQ(all[0].callerName, "JANE DOE");
    EXPECT_EQ(all[0].received, 1700000000);
    EXPECT_EQ(all[0].durationMs, 1500);
    EXPECT_EQ(all[0].state, MessageState::New);
    EXPECT_EQ(probe_audio(store.path_of(all[0])).frames, 12000);
    EXPECT_EQ(store.messages(2).size(), 1u);
}

TEST_F(StoreTest, StatesChangeAndDeletingRemovesTheFile) {
    MessageStore store(dir());
    const Message m = store.add_message(message(1, "5551234"), wav(200));
    const std::string path = store.path_of(m);
    EXPECT_TRUE(store.set_state(m.id, MessageState::Saved));
    EXPECT_EQ(store.message(m.id)->state, MessageState::Saved);
    EXPECT_EQ(store.waiting(), 0);
    EXPECT_TRUE(store.remove(m.id));
    EXPECT_FALSE(file_exists(path));
    EXPECT_TRUE(store.messages().empty());
    EXPECT_FALSE(store.remove(m.id));
    EXPECT_FALSE(store.set_state(m.id, MessageState::Heard));
    EXPECT_FALSE(store.set_state(999, MessageState::Heard));
}

TEST_F(StoreTest, RepairMakesFilesAndRowsAgree) {
    std::string kept, lost;
    {
        MessageStore store(dir());
        kept = store.path_of(store.add_message(message(1, "1"), wav(200)));
        lost = store.path_of(store.add_message(message(1, "2"), wav(200)));
        store.begin_call("KL1001", 1700000000);
    }
    // A message whose audio vanished, a WAV no row names (a crash between
    // the rename and the commit), a WAV still being written.
    std::filesystem::remove(lost);
    write_file(dir() + "/messages/20240101-000000-KL1001-m1-99.wav", "RIFF");
    write_file(dir() + "/messages/.incoming-x.wav", "RIF");

    MessageStore store(dir());
    const RepairReport& r = store.last_repair();
    EXPECT_EQ(r.rowsWithoutFile, 1);
    EXPECT_EQ(r.filesWithoutRow, 1);
    EXPECT_EQ(r.unfinishedFiles, 1);
    EXPECT_EQ(r.callsInterrupted, 1);
    ASSERT_EQ(store.messages().size(), 1u);
    EXPECT_EQ(store.path_of(store.messages()[0]), kept);
    EXPECT_TRUE(file_exists(dir() + "/lost+found/20240101-000000-KL1001-m1-99.wav"));
    EXPECT_EQ(list_dir(dir() + "/messages").size(), 1u);
    EXPECT_EQ(store.calls()[0].outcome, CallOutcome::Interrupted);
    EXPECT_TRUE(MessageStore(dir()).last_repair().clean());
}

TEST_F(StoreTest, AFailedAddLeavesTheStoreAndTheFileAsTheyWere) {
    MessageStore store(dir());
    EXPECT_THROW(store.add_message(message(1, "1"), root_.path() + "/missing.wav"), StoreError);
    EXPECT_TRUE(store.messages().empty());
    EXPECT_TRUE(list_dir(store.messages_dir()).empty());
}

TEST_F(StoreTest, RefusesADamagedDatabase) {
    make_dirs(dir());
    write_file(dir() + "/messages.db", std::string(4096, 'x'));
    try {
        MessageStore store(dir());
        FAIL() << "opened a damaged store";
    } catch (const StoreError& e) {
        EXPECT_THAT(e.what(), HasSubstr("messages.db"));
    }
}

TEST_F(StoreTest, CallLogKeepsEveryCallNewestFirst) {
    MessageStore store(dir());
    const int64_t a = store.begin_call("KL1001", 100);
    const int64_t b = store.begin_call("KL1001", 200);
    store.update_call(a, "5551234", "JANE DOE");
    store.set_call_outcome(a, CallOutcome::Unanswered);
    store.set_call_outcome(b, CallOutcome::Message, 7);
    const auto calls = store.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].id, b);
    EXPECT_EQ(calls[0].outcome, CallOutcome::Message);
    EXPECT_EQ(calls[0].messageId, 7);
    EXPECT_EQ(calls[1].callerNumber, "5551234");
    EXPECT_EQ(calls[1].outcome, CallOutcome::Unanswered);
}

// --- audio ----------------------------------------------------------------

TEST_F(StoreTest, GreetingsOfAnyRateAndLayoutBecomeTheLineFormat) {
    struct Case {
        const char* name;
        int rate;
        int channels;
        int format;
    } cases[] = {
        {"cd.wav", 44100, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16},
        {"wide.flac", 48000, 1, SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
        {"speech.ogg", 22050, 2, SF_FORMAT_OGG | SF_FORMAT_VORBIS},
        {"line.wav", 8000, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_U8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = root_.path() + "/" + c.name;
        write_tone(path, c.rate, c.channels, 1.5, c.format);
        const auto samples = decode_for_line(path);
        EXPECT_NEAR(static_cast<double>(samples.size()), 12000.0, 40.0);
        // The tone survives: loud samples both sides of the silence line.
        const auto [lo, hi] = std::minmax_element(samples.begin(), samples.end());
        EXPECT_LT(*lo, 80);
        EXPECT_GT(*hi, 176);
    }
}

TEST_F(StoreTest, GreetingCacheConvertsOnceAndAgainAfterAnEdit) {
    const std::string source = root_.path() + "/greeting.wav";
    write_tone(source, 44100, 2, 1.0);
    GreetingCache cache(root_.path() + "/cache");
    const std::string raw = cache.get(source);
    EXPECT_NEAR(static_cast<double>(read_raw(raw).size()), 8000.0, 20.0);
    EXPECT_EQ(cache.get(source), raw);
    write_tone(source, 44100, 2, 2.0);
    const std::string edited = cache.get(source);
    EXPECT_NE(edited, raw);
    EXPECT_NEAR(static_cast<double>(read_raw(edited).size()), 16000.0, 20.0);
}

TEST_F(StoreTest, ACorruptGreetingIsRefusedWithItsName) {
    const std::string path = root_.path() + "/broken.wav";
    write_file(path, "RIFF\x10\x00\x00\x00WAVEfmt garbage that is not audio");
    GreetingCache cache(root_.path() + "/cache");
    try {
        cache.get(path);
        FAIL() << "converted a corrupt file";
    } catch (const AudioError& e) {
        EXPECT_THAT(e.what(), HasSubstr(path));
    }
    EXPECT_TRUE(list_dir(root_.path() + "/cache").empty());
}

TEST_F(StoreTest, MessagesAreWrittenAsWavAtTheLineRate) {
    const std::string path = root_.path() + "/m.wav";
    auto samples = tone_samples(8000);
    samples.insert(samples.end(), 16000, kLineSilence);
    write_wav(path, trim_trailing_silence(samples));
    const AudioInfo info = probe_audio(path);
    EXPECT_EQ(info.rate, 8000);
    EXPECT_EQ(info.channels, 1);
    // The second of tone and the quarter second of silence kept after it.
    EXPECT_EQ(info.frames, 8000 + 2000);
    EXPECT_THAT(info.format, HasSubstr("WAV"));
    EXPECT_EQ(decode_for_line(path), trim_trailing_silence(samples));
}

// --- configuration ------------------------------------------------------------

TEST(ConfigTest, ReadsEveryKeyPerLineAndForAllLines) {
    const Config c = parse_config(R"(
[answer]
rings = 4
toll_saver_rings = 2
greeting = /g/main.wav
max_message_length = 90
min_message_length = 3
trim_silence = no
remote_check_digit = *
fax = off
outbound_delivery = yes
outbound_number = 5550100
quiet_hours = 22:30-07:00
quiet_rings = 1
block = 5550000, 900*, withheld
announce_command = notify-send "$KAL_MESSAGE_CALLER_NUMBER"

[line KL1001]
rings = 2
fax = on

[mailbox 2]
greeting = /g/two.flac
busy_greeting = /g/two-busy.wav
active_greeting = busy
pin = 4321
)",
                                  "test.conf");
    EXPECT_EQ(c.defaults.rings, 4);
    EXPECT_EQ(c.defaults.tollSaverRings, 2);
    EXPECT_EQ(c.defaults.greeting, "/g/main.wav");
    EXPECT_EQ(c.defaults.maxMessageLength, 90);
    EXPECT_EQ(c.defaults.minMessageLength, 3);
    EXPECT_FALSE(c.defaults.trimSilence);
    EXPECT_EQ(c.defaults.remoteDigit, "*");
    EXPECT_FALSE(c.defaults.fax);
    EXPECT_TRUE(c.defaults.outboundDelivery);
    EXPECT_EQ(c.defaults.outboundNumber, "5550100");
    ASSERT_TRUE(c.defaults.quietHours);
    EXPECT_TRUE(c.defaults.quietHours->contains(23 * 60));
    EXPECT_TRUE(c.defaults.quietHours->contains(6 * 60));
    EXPECT_FALSE(c.defaults.quietHours->contains(12 * 60));
    EXPECT_TRUE(c.defaults.blocks("5550000"));
    EXPECT_TRUE(c.defaults.blocks("9001234"));
    EXPECT_TRUE(c.defaults.blocks(""));
    EXPECT_FALSE(c.defaults.blocks("5551234"));
    EXPECT_EQ(c.defaults.announceCommand, "notify-send \"$KAL_MESSAGE_CALLER_NUMBER\"");
    // The line starts from [answer] and changes what it names.
    EXPECT_EQ(c.line("KL1001").rings, 2);
    EXPECT_TRUE(c.line("KL1001").fax);
    EXPECT_EQ(c.line("KL1001").maxMessageLength, 90);
    EXPECT_EQ(c.line("ZR2002").rings, 4);
    // Mailbox 1 exists as the default; mailbox 2 answers to its number.
    ASSERT_TRUE(c.mailbox(1));
    ASSERT_TRUE(c.mailbox_for_digit("2"));
    EXPECT_EQ(c.mailbox_for_digit("2")->greeting(), "/g/two-busy.wav");
    EXPECT_EQ(c.mailbox_for_pin("4321")->number, 2);
    EXPECT_EQ(c.mailbox_for_pin("0000"), nullptr);
}

// The sample is installed as /etc/kal-answer.conf: it must work as it is,
// naming no greeting file that is not there and no PIN anyone could guess.
TEST(ConfigTest, TheSampleConfigurationWorksAsInstalled) {
    const Config c = load_config(
        std::string(KAL_SOURCE_DIR) + "/data/answer/kal-answer.conf",
        [](const std::string& path) { throw std::runtime_error("names greeting " + path); });
    EXPECT_EQ(c.defaults.rings, 4);
    ASSERT_EQ(c.mailboxes.size(), 1u);
    EXPECT_EQ(c.mailbox(1)->pin, "");
}

TEST(ConfigTest, MistakesNameTheFileLineAndKey) {
    struct Case {
        std::string text;
        const char* expected;
    } cases[] = {
        {"[answer]\n\nrings = many\n", "a.conf:3: key 'rings' in [answer]: 'many' is not"},
        {"[answer]\nrings = 50\n", "a.conf:2: key 'rings'"},
        {"[line KL1]\nfax = perhaps\n", "a.conf:2: key 'fax' in [line KL1]"},
        {"[answer]\ncolour = blue\n", "a.conf:2: key 'colour' in [answer]: unknown key"},
        {"[mailbox 2]\npin = 12\n", "a.conf:2: key 'pin' in [mailbox 2]: a PIN needs"},
        {"[answer]\nquiet_hours = 25:00-07:00\n", "a.conf:2: key 'quiet_hours'"},
        {"[answer]\ngreeting = relative.wav\n", "must be an absolute path"},
        {"[speakers]\nvolume = 11\n", "a.conf:2: key 'volume' in [speakers]: unknown section"},
        {"[answer]\nthis line is not ini\n", "a.conf:2: not a [section]"},
        {"[answer]\nrings = 2\nannounce_command = echo \"" + std::string(300, 'x') + "\"\n",
         "a.conf:3: the line is too long"},
        {"[answer]\nremote_check_digit = 2\n[mailbox 2]\npin = 1234\n",
         "also the digit of mailbox 2"},
        {"[answer]\noutbound_delivery = yes\n", "outbound_delivery needs outbound_number"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        try {
            parse_config(c.text, "a.conf");
            FAIL() << "accepted";
        } catch (const ConfigError& e) {
            EXPECT_THAT(e.what(), HasSubstr(c.expected));
        }
    }
}

TEST(ConfigTest, AGreetingThatDoesNotConvertIsRefusedAtItsLine) {
    const auto check = [](const std::string& path) {
        if (path == "/g/broken.wav")
            throw AudioError("cannot read /g/broken.wav as audio: unknown format");
    };
    EXPECT_NO_THROW(parse_config("[answer]\ngreeting = /g/fine.wav\n", "a.conf", check));
    try {
        parse_config("[answer]\nrings = 2\n[mailbox 3]\ngreeting = /g/broken.wav\n", "a.conf",
                     check);
        FAIL() << "accepted";
    } catch (const ConfigError& e) {
        EXPECT_THAT(e.what(), HasSubstr("a.conf:4: key 'greeting' in [mailbox 3]: cannot read "
                                        "/g/broken.wav as audio"));
    }
}

TEST(ConfigTest, CallerIdSplitsNumberAndName) {
    struct Case {
        const char* text;
        const char* number;
        const char* name;
    } cases[] = {
        {"5551234 JANE DOE", "5551234", "JANE DOE"},
        {"5551234", "5551234", ""},
        {"PRIVATE", "", "PRIVATE"},
        {"", "", ""},
        {" +4930123 BERLIN ", "+4930123", "BERLIN"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const CallerId id = parse_caller_id(c.text);
        EXPECT_EQ(id.number, c.number);
        EXPECT_EQ(id.name, c.name);
    }
}

}  // namespace
