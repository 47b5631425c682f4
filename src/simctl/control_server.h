#pragma once

// A simulator's control socket: a listening UNIX stream socket and its
// clients, served from the simulator's own poll loop. Each complete line a
// client sends goes to the handler; its reply goes back (control.h). A
// client whose command waits is not served further until the wait ends;
// waits are asked again by resolve_waits(), which the simulator calls after
// anything that may end one. Thread-aware, not thread-safe: everything runs
// on the thread of the poll loop.

#include <poll.h>
#include <sys/types.h>

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "simctl/control.h"

namespace kal::simctl {

class ControlServer {
  public:
    using Handler = std::function<ControlReply(std::string_view line, Clock::time_point now)>;

    explicit ControlServer(Handler handler) : handler_(std::move(handler)) {}
    ~ControlServer() { remove_socket(); }
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Listens at `path`, replacing a socket file a killed simulator left.
    // On failure it complains and the simulator runs without one.
    void open(const std::string& path);
    // Removes the socket file, only when it is still ours.
    void remove_socket();

    // Polls the simulator's own `fds` (which come first and keep their
    // places) and the control socket and clients until `deadline` or the
    // end of a wait. Returns poll()'s result; -1 only on an error other than
    // EINTR (complained about). on_poll() then serves the clients.
    int poll(std::vector<struct pollfd>& fds, std::optional<Clock::time_point> deadline);
    void on_poll(const std::vector<struct pollfd>& fds, Clock::time_point now);
    void resolve_waits(Clock::time_point now);

    // Set by `exit` / `crash`, or by end_with(): the loop ends once the
    // replies are out.
    const std::optional<ControlReply>& ending() const { return ending_; }
    void end_with(ControlReply r) { ending_ = std::move(r); }
    // Once ending(): delivers the replies still queued (for a while), then
    // dies by the signal of `crash` (the socket file stays, as a crash would
    // leave it) or returns the status to exit with.
    int finish();

  private:
    void add_to_poll(std::vector<struct pollfd>& fds);
    std::optional<Clock::time_point> next_deadline() const;
    void final_flush();

    struct Client {
        kal::unique_fd fd;
        std::string in;
        std::string out;
        bool eof = false;
        bool broken = false;
        // A wait in progress: no further line is served until it ends.
        std::optional<ControlReply> waiting;
        Clock::time_point wait_deadline;
        uint64_t wait_seq = 0;
    };

    void accept_clients();
    void on_client(Client& c, short revents, Clock::time_point now);
    void serve_lines(Client& c, Clock::time_point now);
    void flush(Client& c);

    Handler handler_;
    kal::unique_fd listen_fd_;
    std::string socket_path_;
    dev_t socket_dev_ = 0;
    ino_t socket_ino_ = 0;
    std::list<Client> clients_;
    uint64_t wait_seq_ = 0;
    std::optional<ControlReply> ending_;
    // Where add_to_poll() put the listening socket and the first client.
    size_t first_fd_ = 0;
    std::vector<Client*> polled_;
};

}  // namespace kal::simctl
