// The messages page of kal-answer, over HTTP as a browser sees it: the token,
// the API's status codes, byte ranges for the audio element, the upload
// limits and the mailbox check; then the page itself in a real headless
// Chromium driven through chromedriver (WebDriver).

#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <filesystem>

#include "answer/bus_service.h"
#include "answer_fixture.h"
#include "base/unique_fd.h"
#include "service/sd_bus_handles.h"

using namespace kal;
using namespace kal::answer;
using namespace kal::test;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

constexpr const char kTokenHeader[] = "X-Kal-Token";

class WebTest : public AnswerTest {
  protected:
    // kal-answer running, a message in mailbox 1 from a known number and one
    // in mailbox 2 from a withheld one, oldest first.
    std::vector<MessageInfo> two_messages(LineSimControl& line) {
        configure();
        start_answer();
        leave_message(line, "5551234 JANE DOE", "");
        leave_message(line, "", "2");
        return messages_when(2);
    }
    // The address kalctl web prints: its port and token.
    void read_address() {
        const Outcome web = kalctl({"web"});
        ASSERT_EQ(web.status, 0) << web.out;
        std::smatch m;
        const std::regex re(R"(^http://127\.0\.0\.1:(\d+)/\?token=([0-9a-f]{64})\n)");
        ASSERT_TRUE(std::regex_search(web.out, m, re)) << web.out;
        url_ = web.out.substr(0, web.out.size() - 1);
        port_ = std::stoi(m[1]);
        token_ = m[2];
    }
    httplib::Client http() const {
        httplib::Client c("127.0.0.1", port_);
        c.set_read_timeout(std::chrono::seconds(20));
        return c;
    }
    httplib::Headers with_token() const { return {{kTokenHeader, token_}}; }

    std::string url_;
    int port_ = 0;
    std::string token_;
};

int status(const httplib::Result& r) {
    return r ? r->status : -1;
}

// Watches kal-answer's MessagesWaiting for its change signal on the bus.
class WaitingWatcher {
  public:
    WaitingWatcher() {
        sd_bus* raw = nullptr;
        if (sd_bus_open_system(&raw) < 0)
            throw std::runtime_error("no system bus");
        bus_.reset(raw);
        const std::string rule = std::string(
                                     "type='signal',interface='org.freedesktop.DBus."
                                     "Properties',member='PropertiesChanged',path='") +
                                 kAnswerObjectPath + "'";
        sd_bus_slot* slot = nullptr;
        sd_bus_add_match(
            bus_.get(), &slot, rule.c_str(),
            [](sd_bus_message*, void* count, sd_bus_error*) {
                ++*static_cast<int*>(count);
                return 0;
            },
            &changes_);
        match_.reset(slot);
    }
    // Whether a change signal came within `deadline` of the last call.
    bool changed(std::chrono::milliseconds deadline = 5s) {
        const auto end = std::chrono::steady_clock::now() + deadline;
        while (changes_ == 0 && std::chrono::steady_clock::now() < end) {
            if (sd_bus_process(bus_.get(), nullptr) == 0)
                sd_bus_wait(bus_.get(), 100'000);
        }
        const bool any = changes_ > 0;
        changes_ = 0;
        return any;
    }

  private:
    BusPtr bus_;
    SlotPtr match_;
    int changes_ = 0;
};

TEST_F(WebTest, TheApiNeedsTheTokenServesRangesAndKeepsMailboxesApart) {
    LineSimControl line("KL1001");
    const auto list = two_messages(line);
    ASSERT_EQ(list.size(), 2u);
    const MessageInfo& one = list[0].mailbox == 1 ? list[0] : list[1];
    const MessageInfo& two = list[0].mailbox == 2 ? list[0] : list[1];
    ASSERT_EQ(one.mailbox, 1);
    ASSERT_EQ(two.mailbox, 2);
    read_address();

    // The token file is the service's alone.
    struct stat st {};
    ASSERT_EQ(::stat((root_.path() + "/var/lib/kal-answer/web-token").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    auto c = http();
    const std::string audio1 = "/api/mailboxes/1/messages/" + std::to_string(one.id) + "/audio";
    // Without the token, or with a wrong one: 401, whatever is asked.
    for (const std::string path : {"/", "/app.js", "/api/messages", "/api/calls", audio1.c_str()}) {
        EXPECT_EQ(status(c.Get(path.c_str())), 401) << path;
        EXPECT_EQ(status(c.Get((path + "?token=" + std::string(64, '0')).c_str())), 401) << path;
    }
    // A change never takes the token from the address or a cookie: a page
    // of another site could send those.
    const std::string heard1 = "/api/mailboxes/1/messages/" + std::to_string(one.id) + "/heard";
    EXPECT_EQ(status(c.Post((heard1 + "?token=" + token_).c_str())), 401);
    EXPECT_EQ(status(c.Post(heard1.c_str(), {{"Cookie", "kal_token=" + token_}}, "", "")), 401);
    EXPECT_EQ(status(c.Get(heard1.c_str(), with_token())), 404);  // no GET that changes things

    // The page sets the cookie its own requests carry.
    auto page = c.Get(("/?token=" + token_).c_str());
    ASSERT_EQ(status(page), 200);
    EXPECT_THAT(page->body, HasSubstr("<script src=\"app.js\">"));
    EXPECT_THAT(page->get_header_value("Set-Cookie"), HasSubstr("SameSite=Strict"));
    EXPECT_EQ(status(c.Get("/style.css", {{"Cookie", "kal_token=" + token_}})), 200);

    auto all = c.Get("/api/messages", with_token());
    ASSERT_EQ(status(all), 200);
    EXPECT_EQ(all->get_header_value("Content-Type"), "application/json");
    EXPECT_THAT(all->body, HasSubstr("\"number\":\"5551234\",\"name\":\"JANE DOE\""));
    EXPECT_THAT(all->body, HasSubstr("\"durationMs\":3000,\"state\":\"new\",\"heard\":false"));
    auto box2 = c.Get("/api/mailboxes/2/messages", with_token());
    ASSERT_EQ(status(box2), 200);
    EXPECT_THAT(box2->body, HasSubstr("\"id\":" + std::to_string(two.id) + ","));
    EXPECT_THAT(box2->body, Not(HasSubstr("5551234")));
    auto calls = c.Get("/api/calls", with_token());
    ASSERT_EQ(status(calls), 200);
    EXPECT_THAT(calls->body, HasSubstr("\"outcome\":\"message\""));

    // The WAV whole, then a range of it as the audio element asks when it
    // seeks.
    auto whole = c.Get(audio1.c_str(), with_token());
    ASSERT_EQ(status(whole), 200);
    EXPECT_EQ(whole->body.substr(0, 4), "RIFF");
    EXPECT_EQ(whole->get_header_value("Accept-Ranges"), "bytes");
    EXPECT_GE(whole->body.size(), 3u * 8000);
    httplib::Headers range = with_token();
    range.emplace("Range", "bytes=1000-1099");
    auto part = c.Get(audio1.c_str(), range);
    ASSERT_EQ(status(part), 206);
    EXPECT_EQ(part->body, whole->body.substr(1000, 100));
    EXPECT_EQ(part->get_header_value("Content-Range"),
              "bytes 1000-1099/" + std::to_string(whole->body.size()));

    // Mailbox 2's message is not reachable as mailbox 1's, nor is a deleted
    // or made-up one.
    const std::string foreign = "/api/mailboxes/1/messages/" + std::to_string(two.id);
    EXPECT_EQ(status(c.Get((foreign + "/audio").c_str(), with_token())), 404);
    EXPECT_EQ(status(c.Post((foreign + "/heard").c_str(), with_token(), "", "")), 404);
    EXPECT_EQ(status(c.Delete(foreign.c_str(), with_token())), 404);
    EXPECT_EQ(status(c.Get("/api/mailboxes/1/messages/999999/audio", with_token())), 404);
    EXPECT_EQ(messages_when(2).size(), 2u);

    // Heard, saved, deleted: the store (read over D-Bus) agrees.
    const std::string own2 = "/api/mailboxes/2/messages/" + std::to_string(two.id);
    WaitingWatcher watcher;
    EXPECT_EQ(status(c.Post(heard1.c_str(), with_token(), "", "")), 204);
    // A change on the page reaches D-Bus watchers of the waiting count too.
    EXPECT_TRUE(watcher.changed());
    EXPECT_EQ(status(c.Post((own2 + "/save").c_str(), with_token(), "", "")), 204);
    AnswerClient client;
    auto after = client.listMessages();
    ASSERT_EQ(after.size(), 2u);
    EXPECT_EQ(after[0].id == one.id ? after[0].state : after[1].state, "heard");
    EXPECT_EQ(after[0].id == two.id ? after[0].state : after[1].state, "saved");
    EXPECT_EQ(status(c.Delete(own2.c_str(), with_token())), 204);
    EXPECT_EQ(status(c.Delete(own2.c_str(), with_token())), 404);
    after = client.listMessages();
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0].id, one.id);
    EXPECT_EQ(status(c.Get((own2 + "/audio").c_str(), with_token())), 404);
}

// A bookmarked address keeps working: after a restart the page is on the
// same port with the same token; when that port is taken, on another.
TEST_F(WebTest, TheAddressSurvivesARestartAndMovesOnlyWhenItsPortIsTaken) {
    configure();
    start_answer();
    read_address();
    const std::string first = url_;
    const int firstPort = port_;
    const auto restart = [&] {
        answer_->signal(SIGTERM);
        ASSERT_EQ(answer_->wait_exit(), 0);
        start_answer();
        read_address();
    };
    restart();
    EXPECT_EQ(url_, first);

    // Something else took the port while kal-answer was away.
    answer_->signal(SIGTERM);
    ASSERT_EQ(answer_->wait_exit(), 0);
    unique_fd squatter(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(firstPort));
    ASSERT_EQ(::bind(squatter.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(::listen(squatter.get(), 1), 0);
    start_answer();
    read_address();
    EXPECT_NE(port_, firstPort);
    EXPECT_EQ(status(http().Get("/api/messages", with_token())), 200);
}

TEST_F(WebTest, AGreetingUploadIsConvertedAndLimited) {
    configure();
    start_answer();
    read_address();
    auto c = http();
    const std::string path = "/api/mailboxes/2/greeting";

    // Too big: refused before it is read.
    EXPECT_EQ(status(c.Post(path.c_str(), with_token(), std::string(9 * 1024 * 1024, 'x'),
                            "application/octet-stream")),
              413);
    EXPECT_EQ(status(c.Post(path.c_str(), with_token(), "not audio at all", "audio/wav")), 415);
    EXPECT_EQ(status(c.Post(path.c_str(), with_token(), "", "audio/wav")), 400);
    EXPECT_EQ(status(c.Post("/api/mailboxes/0/greeting", with_token(), "x", "audio/wav")), 404);

    // FLAC at 44.1 kHz stereo: kept as the line's format, where a greeting
    // recorded over the phone goes, and played to the next caller.
    const std::string flac = root_.path() + "/upload.flac";
    write_tone(flac, 44100, 2, 2.0, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    auto r = c.Post(path.c_str(), with_token(), read_file(flac), "audio/flac");
    ASSERT_EQ(status(r), 200) << (r ? r->body : "");
    EXPECT_THAT(r->body, HasSubstr("\"durationMs\":"));
    const AudioInfo kept =
        probe_audio(root_.path() + "/var/lib/kal-answer/greetings/recorded-mailbox-2.wav");
    EXPECT_EQ(kept.rate, 8000);
    EXPECT_EQ(kept.channels, 1);
    EXPECT_NEAR(kept.frames, 2 * 8000, 2);

    LineSimControl line("KL1001");
    ASSERT_THAT(ring_until_answered(line, ""), StartsWith("ok P ")) << answer_log();
    line.send("digits 2");
    EXPECT_THAT(line.send("wait-command P 20"), HasSubstr("/greetings/recorded-mailbox-2-"))
        << answer_log();
}

// --- the page in a real browser ---------------------------------------------

int free_port() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    ::close(fd);
    return ntohs(a.sin_port);
}

std::string json_text(const std::string& s) {
    std::string out = "\"";
    for (const char c : s) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c == '\n' ? ' ' : c;
    }
    return out + "\"";
}

std::string base64_decode(const std::string& in) {
    static const std::string digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    uint32_t acc = 0;
    int bits = 0;
    for (const char c : in) {
        const size_t v = digits.find(c);
        if (v == std::string::npos)
            continue;  // '=' and line breaks
        acc = (acc << 6) | static_cast<uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((acc >> bits) & 0xff);
        }
    }
    return out;
}

// The last `lines` lines of a file, for a failure's message.
std::string tail_of(const std::string& path, size_t lines = 40) {
    const std::string text = read_file(path);
    size_t at = text.size();
    for (size_t n = 0; n <= lines && at > 0; ++n)
        at = text.rfind('\n', at - 1);
    return text.substr(at == std::string::npos ? 0 : at + 1);
}

// Where the browser test is, on standard error (unbuffered): when ctest ends
// a test at its timeout this is what says which step hung.
void step(const std::string& what) {
    std::fprintf(stderr, "[web] %s\n", what.c_str());
}

// What the browser processes see of the environment: none of the test's
// fakes. umockdev's preload library (which the test binary runs under) would
// hand Chromium the fake testbed for /dev and /sys, and the private system
// bus is none of its business.
std::vector<std::string> browser_environment(const std::string& scratch) {
    return {"LD_PRELOAD", "UMOCKDEV_DIR", "DBUS_SESSION_BUS_ADDRESS",
            "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + scratch + "/no-such-bus"};
}

// A headless Chromium, driven through chromedriver in WebDriver's JSON.
//
// Nothing here looks up a host name. Chromium looks up Google's and its
// search engine's hosts as it starts and holds the first page load until
// they answer, which on a machine whose DNS drops queries took 13 s and more
// (measured with a name server that never answers): the resolver rule
// answers every name but 127.0.0.1 "not found" at once, and the other flags
// keep it from reaching out. chromedriver, when it starts Chromium itself,
// reaches it through "localhost", which without an /etc/hosts entry went to
// that DNS and never came back; so the test starts Chromium and hands
// chromedriver its debugging address, 127.0.0.1:PORT.
class Browser {
  public:
    explicit Browser(const std::string& scratch)
        : debugPort_(free_port()),
          chromium_({"/usr/bin/chromium",
                     "--headless=new",
                     "--no-sandbox",
                     "--disable-gpu",
                     "--disable-audio-output",
                     "--disable-dev-shm-usage",
                     "--window-size=412,915",
                     "--no-first-run",
                     "--no-default-browser-check",
                     "--disable-background-networking",
                     "--disable-component-update",
                     "--disable-sync",
                     "--disable-quic",
                     "--disable-default-apps",
                     "--disable-extensions",
                     "--host-resolver-rules=MAP * ~NOTFOUND , EXCLUDE 127.0.0.1",
                     "--autoplay-policy=no-user-gesture-required",
                     "--remote-debugging-address=127.0.0.1",
                     "--remote-debugging-port=" + std::to_string(debugPort_),
                     "--user-data-dir=" + scratch + "/chromium",
                     "about:blank"},
                    browser_environment(scratch), scratch + "/chromium.txt"),
          port_(free_port()),
          log_(scratch + "/chromedriver.log"),
          chromiumLog_(scratch + "/chromium.txt"),
          driver_({"/usr/bin/chromedriver", "--port=" + std::to_string(port_), "--verbose",
                   "--log-path=" + log_},
                  browser_environment(scratch), scratch + "/chromedriver.txt"),
          http_("127.0.0.1", port_) {
        http_.set_read_timeout(std::chrono::seconds(30));
        step("starting chromium and chromedriver");
        httplib::Client devtools("127.0.0.1", debugPort_);
        EXPECT_TRUE(wait_for([&] { return status(devtools.Get("/json/version")) == 200; }))
            << log();
        EXPECT_TRUE(wait_for([&] { return status(http_.Get("/status")) == 200; })) << log();
        const std::string caps =
            R"({"capabilities":{"alwaysMatch":{"browserName":"chrome","goog:chromeOptions":{)"
            R"("debuggerAddress":"127.0.0.1:)" +
            std::to_string(debugPort_) + R"("}}}})";
        step("opening a session");
        auto r = http_.Post("/session", caps, "application/json");
        std::smatch m;
        if (r && std::regex_search(r->body, m, std::regex(R"("sessionId"\s*:\s*"([^"]+)\")")))
            session_ = "/session/" + m[1].str();
        EXPECT_FALSE(session_.empty()) << (r ? r->body : "chromedriver did not answer") << log();
    }
    ~Browser() {
        if (::testing::Test::HasFailure())
            std::fprintf(stderr, "%s\n", log().c_str());
        if (!session_.empty())
            http_.Delete(session_.c_str());
        driver_.signal(SIGTERM);
        driver_.wait_exit();
        chromium_.signal(SIGTERM);
        chromium_.wait_exit();
    }
    // The ends of chromedriver's and Chromium's logs, for a failure.
    std::string log() const {
        return "\n--- chromedriver's log, last lines ---\n" + tail_of(log_) +
               "\n--- chromium's standard error, last lines ---\n" + tail_of(chromiumLog_);
    }
    bool ready() const { return !session_.empty(); }

    void go(const std::string& url) { command("/url", "{\"url\":" + json_text(url) + "}"); }
    // What `script` (a function body) returns, as WebDriver's JSON.
    std::string run(const std::string& script) {
        return command("/execute/sync", "{\"script\":" + json_text(script) + ",\"args\":[]}");
    }
    // Waits until `script` returns true.
    bool until(const std::string& script, std::chrono::milliseconds deadline = 20s) {
        return wait_for([&] { return run(script).find("\"value\":true") != std::string::npos; },
                        deadline);
    }
    // Clicks what `selector` names, as a person would.
    void click(const std::string& selector) {
        const std::string found = command(
            "/element", "{\"using\":\"css selector\",\"value\":" + json_text(selector) + "}");
        std::smatch m;
        const std::regex element(R"re("element-6066-11e4-a52e-4f735466cecf"\s*:\s*"([^"]+)")re");
        ASSERT_TRUE(std::regex_search(found, m, element)) << found;
        command("/element/" + m[1].str() + "/click", "{}");
    }
    void screenshot(const std::string& path) {
        auto r = http_.Get((session_ + "/screenshot").c_str());
        ASSERT_EQ(status(r), 200);
        // A large body: std::regex would recurse once per character.
        const size_t key = r->body.find("\"value\"");
        ASSERT_NE(key, std::string::npos) << r->body.substr(0, 200);
        const size_t start = r->body.find('"', r->body.find(':', key)) + 1;
        const std::string png =
            base64_decode(r->body.substr(start, r->body.find('"', start) - start));
        EXPECT_EQ(png.substr(1, 3), "PNG");
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << png;
    }

  private:
    std::string command(const std::string& what, const std::string& body) {
        auto r = http_.Post((session_ + what).c_str(), body, "application/json");
        return r ? r->body : "";
    }

    int debugPort_;
    ChildProcess chromium_;
    int port_;
    std::string log_;
    std::string chromiumLog_;
    ChildProcess driver_;
    httplib::Client http_;
    std::string session_;
};

TEST_F(WebTest, InChromiumThePageListsPlaysAndDeletesMessagesAndShowsNewOnes) {
    if (::access("/usr/bin/chromium", X_OK) != 0 || ::access("/usr/bin/chromedriver", X_OK) != 0)
        GTEST_SKIP() << "chromium and chromium-driver are not installed: "
                        "bash tools/install-deps.sh browser";
    LineSimControl line("KL1001");
    step("leaving two messages");
    const auto list = two_messages(line);
    ASSERT_EQ(list.size(), 2u);
    read_address();

    Browser browser(root_.path());
    ASSERT_TRUE(browser.ready());
    // Without the token the browser gets nothing but the 401.
    step("loading the page without the token");
    browser.go("http://127.0.0.1:" + std::to_string(port_) + "/");
    EXPECT_THAT(browser.run("return document.body.innerText;"), HasSubstr("needs the token"));

    step("loading the page");
    browser.go(url_);
    ASSERT_TRUE(
        browser.until("return document.body.dataset.loaded === 'yes' && "
                      "document.querySelectorAll('.message').length === 2;"))
        << browser.run("return document.body.innerHTML;");
    EXPECT_THAT(browser.run("return document.body.innerText;"), HasSubstr("5551234 (JANE DOE)"));
    EXPECT_TRUE(browser.until("return document.getElementById('status').textContent === 'live';"));

    // Played to its end; playing marks it heard.
    step("playing a message");
    const std::string first = std::to_string(list[0].id);
    browser.click("#message-" + first + " .play");
    EXPECT_TRUE(browser.until("return document.body.dataset.ended === '" + first + "';"))
        << browser.run(
               "const p = document.getElementById('player');"
               "return [p.src, p.error && p.error.message, p.currentTime, p.paused];");
    AnswerClient client;
    EXPECT_TRUE(wait_for([&] { return client.listMessages()[0].state == "heard"; }));

    // A new message reaches the open page by itself.
    step("leaving a third message");
    leave_message(line, "5559876", "");
    EXPECT_TRUE(browser.until("return document.querySelectorAll('.message').length === 3;"));
    browser.screenshot(KAL_TEST_ARTIFACTS_DIR "/web-page.png");

    // Deleted on the page: gone from the page and from the store.
    step("deleting a message");
    const std::string second = std::to_string(list[1].id);
    browser.click("#message-" + second + " .delete");
    EXPECT_TRUE(browser.until("return !document.getElementById('message-" + second + "');"));
    const auto left = client.listMessages();
    EXPECT_EQ(left.size(), 2u);
    for (const auto& m : left)
        EXPECT_NE(m.id, list[1].id);
}

}  // namespace
