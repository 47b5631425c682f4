#pragma once

// The messages page of kal-answer: a small HTTP server on the loopback
// address serving one page (data/web: index.html, style.css, app.js) and a
// JSON API over the message store.
//
// The HTTP library is cpp-httplib (Debian's libcpp-httplib-dev): a single,
// widely used and maintained library with a plain blocking API, byte-range
// support for the audio element's seeking, chunked responses for
// server-sent events and a payload limit, and no framework around it.
//
// Security: it listens on 127.0.0.1 only. Every request needs the install's
// token (kept in <state>/web-token, mode 0600, made at first start; kalctl
// web gets the URL with it over D-Bus, so it reaches exactly whom the bus
// policy lets use kal-answer). A GET may carry it as ?token=, as the
// kal_token cookie the page sets (SameSite=Strict) or in the X-Kal-Token
// header; a request that changes something must be a POST or DELETE with
// the token in X-Kal-Token, which no other site's page can send without a
// CORS preflight this server never grants. Files served are named by the
// server (a fixed list of assets, the store's own file name for a message);
// nothing in a request becomes a path. A message is reached only under its
// own mailbox (/api/mailboxes/N/messages/ID): the store's row must say
// mailbox N, so guessing ids of another mailbox gets 404.
//
// Threads: cpp-httplib answers on its own pool of threads. They never touch
// sd-bus (which belongs to the main thread): they use a MessageStore of
// their own, a second SQLite connection to the same database (WAL mode lets
// it read while the main thread writes), guarded by `storeLock_`. The main
// thread tells the server of new messages with messageArrived(), which only
// takes `eventsLock_` and wakes the event streams.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "answer/store.h"

namespace httplib {
class Server;
class Request;
class Response;
}  // namespace httplib

namespace kal::answer {

struct WebOptions {
    std::string stateDir;   // the store's folder: database, messages, token
    std::string assetsDir;  // index.html, style.css, app.js
    int port = 0;           // 0: any free port
    // The largest greeting upload accepted, in bytes.
    size_t maxUpload = 8 * 1024 * 1024;
    // How often an idle event stream sends a comment (so a closed page is
    // noticed and its thread freed).
    std::chrono::milliseconds keepAlive{15000};
};

// The install's token: read from `path`, or made (32 random bytes, hex) and
// written there with mode 0600 when missing. Throws std::runtime_error.
std::string load_or_make_token(const std::string& path);

class WebServer {
  public:
    // Opens its own connection to the store in options.stateDir (which the
    // main thread's MessageStore has already created and repaired). Throws
    // StoreError or std::runtime_error.
    explicit WebServer(WebOptions options);
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Binds 127.0.0.1 and starts serving on a thread of its own. Throws
    // std::runtime_error when the port cannot be bound.
    void start();
    // Ends every event stream and stops serving; start() may not follow.
    void stop();

    int port() const { return port_; }
    // http://127.0.0.1:PORT/?token=TOKEN
    std::string url() const;

    // Called on any thread (the main loop): a new message was stored; open
    // pages hear of it through /api/events.
    void messageArrived(const Message& m);
    // Called on the main thread: whether a page marked, saved or deleted a
    // message since the last call, so the main thread can tell D-Bus
    // watchers that MessagesWaiting changed (the page's threads never touch
    // sd-bus themselves).
    bool takeStoreChanged() { return storeChanged_.exchange(false); }

  private:
    void routes();
    bool authorised(const httplib::Request& req, bool changes) const;
    void serveAsset(const char* name, const char* type, httplib::Response& res) const;
    // The message `id` if it is in `mailbox` and not deleted.
    std::optional<Message> messageIn(int mailbox, int64_t id);
    void messageAction(const httplib::Request& req, httplib::Response& res, MessageState state);
    void uploadGreeting(const httplib::Request& req, httplib::Response& res);

    WebOptions options_;
    std::string token_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;

    std::mutex storeLock_;  // guards store_
    MessageStore store_;
    std::atomic<bool> storeChanged_{false};

    std::mutex eventsLock_;  // guards events_, lastEvent_, stopping_
    std::condition_variable eventsChanged_;
    uint64_t events_ = 0;    // how many messages arrived since start
    std::string lastEvent_;  // the JSON of the last one
    bool stopping_ = false;
};

}  // namespace kal::answer
