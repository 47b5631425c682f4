#include "answer/web.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <httplib.h>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "answer/audio.h"
#include "base/unique_fd.h"

namespace kal::answer {

namespace fs = std::filesystem;

namespace {

constexpr const char kTokenHeader[] = "X-Kal-Token";
constexpr const char kTokenCookie[] = "kal_token";
// A greeting longer than this is surely a mistake (a song, a recording left
// running): it would hold every caller for minutes.
constexpr int64_t kMaxGreetingSamples = int64_t{5} * 60 * kLineRate;

std::string json_string(const std::string& s) {
    std::string out = "\"";
    for (const unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string message_json(const Message& m) {
    std::ostringstream o;
    o << "{\"id\":" << m.id << ",\"mailbox\":" << m.mailbox << ",\"line\":" << json_string(m.line)
      << ",\"number\":" << json_string(m.callerNumber) << ",\"name\":" << json_string(m.callerName)
      << ",\"received\":" << m.received << ",\"durationMs\":" << m.durationMs
      << ",\"state\":" << json_string(message_state_name(m.state))
      << ",\"heard\":" << (m.state == MessageState::New ? "false" : "true") << "}";
    return o.str();
}

std::string call_json(const CallRecord& c) {
    std::ostringstream o;
    o << "{\"id\":" << c.id << ",\"line\":" << json_string(c.line)
      << ",\"number\":" << json_string(c.callerNumber) << ",\"name\":" << json_string(c.callerName)
      << ",\"started\":" << c.started
      << ",\"outcome\":" << json_string(call_outcome_name(c.outcome))
      << ",\"messageId\":" << c.messageId << "}";
    return o.str();
}

template <typename Items, typename ToJson>
std::string json_array(const Items& items, ToJson&& to_json) {
    std::string out = "[";
    for (const auto& item : items) {
        if (out.size() > 1)
            out += ',';
        out += to_json(item);
    }
    return out + "]";
}

void fail(httplib::Response& res, int status, const std::string& why) {
    res.status = status;
    res.set_content("{\"error\":" + json_string(why) + "}", "application/json");
}

// Compares in time independent of where the strings first differ.
bool same_token(const std::string& given, const std::string& token) {
    if (given.size() != token.size())
        return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < token.size(); ++i)
        diff |= static_cast<unsigned char>(given[i] ^ token[i]);
    return diff == 0;
}

std::string cookie_value(const std::string& header, const std::string& name) {
    std::istringstream in(header);
    std::string part;
    while (std::getline(in, part, ';')) {
        const size_t start = part.find_first_not_of(' ');
        if (start == std::string::npos)
            continue;
        part.erase(0, start);
        if (part.compare(0, name.size() + 1, name + "=") == 0)
            return part.substr(name.size() + 1);
    }
    return "";
}

std::string read_whole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Writes `text` to `path` through a file beside it, mode 0600 from the
// start, then renamed into place: never readable by others, never half
// there. False (errno set) when any step fails.
bool replace_private_file(const std::string& path, const std::string& text) {
    const std::string tmp = path + ".new";
    ::unlink(tmp.c_str());
    unique_fd out(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    return out &&
           ::write(out.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
           ::fsync(out.get()) == 0 && ::rename(tmp.c_str(), path.c_str()) == 0;
}

// The port the page listened on last time, from `path`; 0 when there is
// none (or the file holds anything but a port a user may listen on).
int remembered_port(const std::string& path) {
    unique_fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd)
        return 0;
    char buf[16];
    const ssize_t n = ::read(fd.get(), buf, sizeof buf);
    int port = 0;
    if (n <= 0 || std::from_chars(buf, buf + n, port).ec != std::errc())
        return 0;
    return port >= 1024 && port <= 65535 ? port : 0;
}

}  // namespace

std::string load_or_make_token(const std::string& path) {
    unique_fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (fd) {
        char buf[128];
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        std::string token(buf, n > 0 ? static_cast<size_t>(n) : 0);
        while (!token.empty() && (token.back() == '\n' || token.back() == ' '))
            token.pop_back();
        if (token.size() >= 32)
            return token;
    }
    unsigned char raw[32];
    if (::getrandom(raw, sizeof raw, 0) != static_cast<ssize_t>(sizeof raw))
        throw std::runtime_error(std::string("cannot make a token: ") + std::strerror(errno));
    std::string token;
    for (const unsigned char b : raw) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", b);
        token += hex;
    }
    if (!replace_private_file(path, token + "\n"))
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    return token;
}

WebServer::WebServer(WebOptions options)
    : options_(std::move(options)),
      token_(load_or_make_token(options_.stateDir + "/web-token")),
      server_(std::make_unique<httplib::Server>()),
      store_(options_.stateDir, MessageStore::Opening::kAlreadyRepaired) {
    routes();
}

WebServer::~WebServer() {
    stop();
}

std::string WebServer::url() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/?token=" + token_;
}

void WebServer::start() {
    int port = -1;
    if (options_.port != 0) {
        port = server_->bind_to_port("127.0.0.1", options_.port) ? options_.port : -1;
    } else {
        // Any free port the first time, then the same one for as long as it
        // is free, so an address a person bookmarked keeps working across
        // restarts. Not remembering it costs nothing but that.
        const std::string remembered = options_.stateDir + "/web-port";
        const int last = remembered_port(remembered);
        if (last != 0 && server_->bind_to_port("127.0.0.1", last))
            port = last;
        else
            port = server_->bind_to_any_port("127.0.0.1");
        if (port > 0 && port != last)
            replace_private_file(remembered, std::to_string(port) + "\n");
    }
    if (port < 0)
        throw std::runtime_error("cannot listen on 127.0.0.1 port " +
                                 std::to_string(options_.port) + ": " + std::strerror(errno));
    port_ = port;
    // The server's threads (this one and the pool it starts) take no
    // signals: the main loop waits for SIGTERM, SIGINT and SIGHUP, and a
    // thread that did not block them would die of them instead.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void WebServer::stop() {
    {
        std::lock_guard lock(eventsLock_);
        stopping_ = true;
    }
    eventsChanged_.notify_all();
    if (thread_.joinable()) {
        server_->stop();
        thread_.join();
    }
}

void WebServer::messageArrived(const Message& m) {
    {
        std::lock_guard lock(eventsLock_);
        ++events_;
        lastEvent_ = message_json(m);
    }
    eventsChanged_.notify_all();
}

bool WebServer::authorised(const httplib::Request& req, bool changes) const {
    if (same_token(req.get_header_value(kTokenHeader), token_))
        return true;
    if (changes)
        return false;
    return same_token(req.get_param_value("token"), token_) ||
           same_token(cookie_value(req.get_header_value("Cookie"), kTokenCookie), token_);
}

void WebServer::serveAsset(const char* name, const char* type, httplib::Response& res) const {
    try {
        res.set_content(read_whole(options_.assetsDir + "/" + name), type);
        res.set_header("Cache-Control", "no-store");
    } catch (const std::exception& e) {
        fail(res, 500, e.what());
    }
}

std::optional<Message> WebServer::messageIn(int mailbox, int64_t id) {
    std::lock_guard lock(storeLock_);
    auto m = store_.message(id);
    if (!m || m->mailbox != mailbox || m->state == MessageState::Deleted)
        return std::nullopt;
    return m;
}

void WebServer::messageAction(const httplib::Request& req, httplib::Response& res,
                              MessageState state) {
    const int mailbox = std::stoi(req.matches[1]);
    const int64_t id = std::stoll(req.matches[2]);
    if (!messageIn(mailbox, id))
        return fail(res, 404, "no such message in this mailbox");
    std::lock_guard lock(storeLock_);
    const bool done =
        state == MessageState::Deleted ? store_.remove(id) : store_.set_state(id, state);
    if (!done)
        return fail(res, 404, "no such message in this mailbox");
    storeChanged_ = true;
    res.status = 204;
}

void WebServer::uploadGreeting(const httplib::Request& req, httplib::Response& res) {
    const int mailbox = std::stoi(req.matches[1]);
    if (mailbox < 1 || mailbox > 99)
        return fail(res, 404, "no such mailbox");
    if (req.body.empty())
        return fail(res, 400, "the upload is empty: send the audio file as the request body");
    // The upload goes to a private file of our own naming: libsndfile reads
    // from a path.
    std::string upload = options_.stateDir + "/upload.XXXXXX";
    unique_fd fd(::mkostemp(upload.data(), O_CLOEXEC));
    if (!fd)
        return fail(res, 500, std::string("cannot keep the upload: ") + std::strerror(errno));
    struct Remove {
        std::string path;
        ~Remove() { ::unlink(path.c_str()); }
    } remove{upload};
    if (::write(fd.get(), req.body.data(), req.body.size()) !=
        static_cast<ssize_t>(req.body.size()))
        return fail(res, 500, std::string("cannot keep the upload: ") + std::strerror(errno));
    fd.reset();
    try {
        const auto samples = decode_for_line(upload);
        if (samples.size() < kLineRate / 2)
            return fail(res, 400, "the greeting is shorter than half a second");
        if (static_cast<int64_t>(samples.size()) > kMaxGreetingSamples)
            return fail(res, 400, "the greeting is longer than five minutes");
        // Where a greeting recorded over the phone goes: callers hear it from
        // the next call on, as they would that one.
        const std::string dir = options_.stateDir + "/greetings";
        fs::create_directories(dir);
        write_wav(dir + "/recorded-mailbox-" + std::to_string(mailbox) + ".wav", samples);
        res.set_content("{\"mailbox\":" + std::to_string(mailbox) + ",\"durationMs\":" +
                            std::to_string(samples.size() * 1000 / kLineRate) + "}",
                        "application/json");
    } catch (const AudioError&) {
        fail(res, 415, "not an audio file this machine can read (WAV, FLAC, Ogg/Vorbis...)");
    }
}

void WebServer::routes() {
    httplib::Server& s = *server_;
    s.set_payload_max_length(options_.maxUpload);
    s.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        const bool changes = req.method != "GET" && req.method != "HEAD";
        if (authorised(req, changes))
            return httplib::Server::HandlerResponse::Unhandled;
        fail(res, 401,
             changes ? "this needs the token in the X-Kal-Token header"
                     : "this needs the token: open the address kalctl web prints");
        return httplib::Server::HandlerResponse::Handled;
    });
    s.set_exception_handler(
        [](const httplib::Request&, httplib::Response& res, std::exception_ptr ep) {
            try {
                std::rethrow_exception(ep);
            } catch (const std::exception& e) {
                fail(res, 500, e.what());
            }
        });

    s.Get("/", [this](const httplib::Request&, httplib::Response& res) {
        serveAsset("index.html", "text/html; charset=utf-8", res);
        // The page's own requests (style, script, audio, events) carry the
        // token as this cookie; a cross-site request never does.
        res.set_header("Set-Cookie", std::string(kTokenCookie) + "=" + token_ +
                                         "; Path=/; HttpOnly; SameSite=Strict");
    });
    s.Get("/style.css", [this](const httplib::Request&, httplib::Response& res) {
        serveAsset("style.css", "text/css; charset=utf-8", res);
    });
    s.Get("/app.js", [this](const httplib::Request&, httplib::Response& res) {
        serveAsset("app.js", "text/javascript; charset=utf-8", res);
    });

    s.Get("/api/messages", [this](const httplib::Request&, httplib::Response& res) {
        std::lock_guard lock(storeLock_);
        res.set_content(json_array(store_.messages(0), message_json), "application/json");
    });
    s.Get(R"(/api/mailboxes/(\d{1,2})/messages)",
          [this](const httplib::Request& req, httplib::Response& res) {
              std::lock_guard lock(storeLock_);
              res.set_content(json_array(store_.messages(std::stoi(req.matches[1])), message_json),
                              "application/json");
          });
    s.Get("/api/calls", [this](const httplib::Request&, httplib::Response& res) {
        std::lock_guard lock(storeLock_);
        res.set_content(json_array(store_.calls(100), call_json), "application/json");
    });
    s.Get(R"(/api/mailboxes/(\d{1,2})/messages/(\d{1,12})/audio)",
          [this](const httplib::Request& req, httplib::Response& res) {
              const auto m = messageIn(std::stoi(req.matches[1]), std::stoll(req.matches[2]));
              if (!m)
                  return fail(res, 404, "no such message in this mailbox");
              // The whole file (minutes of 8 kHz, 8-bit audio: small); the
              // library answers Range requests from it with 206.
              res.set_content(read_whole(store_.path_of(*m)), "audio/wav");
              res.set_header("Accept-Ranges", "bytes");
          });
    s.Post(R"(/api/mailboxes/(\d{1,2})/messages/(\d{1,12})/heard)",
           [this](const httplib::Request& req, httplib::Response& res) {
               messageAction(req, res, MessageState::Heard);
           });
    s.Post(R"(/api/mailboxes/(\d{1,2})/messages/(\d{1,12})/save)",
           [this](const httplib::Request& req, httplib::Response& res) {
               messageAction(req, res, MessageState::Saved);
           });
    s.Delete(R"(/api/mailboxes/(\d{1,2})/messages/(\d{1,12}))",
             [this](const httplib::Request& req, httplib::Response& res) {
                 messageAction(req, res, MessageState::Deleted);
             });
    s.Post(
        R"(/api/mailboxes/(\d{1,2})/greeting)",
        [this](const httplib::Request& req, httplib::Response& res) { uploadGreeting(req, res); });

    s.Get("/api/events", [this](const httplib::Request&, httplib::Response& res) {
        uint64_t seen;
        {
            std::lock_guard lock(eventsLock_);
            seen = events_;
        }
        res.set_header("Cache-Control", "no-store");
        res.set_chunked_content_provider(
            "text/event-stream",
            [this, seen, greeted = false](size_t, httplib::DataSink& sink) mutable {
                std::unique_lock lock(eventsLock_);
                if (!greeted) {
                    greeted = true;
                    lock.unlock();
                    const std::string hello = "retry: 2000\n: connected\n\n";
                    return sink.write(hello.data(), hello.size());
                }
                eventsChanged_.wait_for(lock, options_.keepAlive,
                                        [&] { return stopping_ || events_ != seen; });
                if (stopping_) {
                    sink.done();
                    return false;
                }
                std::string out = ": keep-alive\n\n";
                if (events_ != seen) {
                    seen = events_;
                    out = "event: message\ndata: " + lastEvent_ + "\n\n";
                }
                lock.unlock();
                return sink.write(out.data(), out.size());
            });
    });
}

}  // namespace kal::answer
