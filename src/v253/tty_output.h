#pragma once

// What waits to be written to the modem's port: audio of a play, and the
// commands and DLE codes that go after it. The port is non-blocking and
// paced by the modem (RTS/CTS), so both wait here until it takes them.
//
// Dropping queued audio (a play stopped early) must not leave half of a
// doubled DLE on the wire: the modem would read the next code's byte as
// the second half. The writer therefore tracks whether the last byte it
// wrote opened a pair, and keeps the byte that closes it.

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

namespace v253 {

class TtyOutput {
  public:
    void add_audio(std::string_view escaped) { audio_ += escaped; }
    void add_control(std::string_view bytes) { control_ += bytes; }
    void drop_audio();
    size_t audio_size() const { return audio_.size(); }
    bool pending() const { return !audio_.empty() || !control_.empty(); }

    // Writes what the port takes now, audio first. False when the port
    // failed (gone); true otherwise, also when it is merely full.
    bool flush(int fd);
    // The same through `write`, which behaves as write(2) does.
    using Writer = std::function<ssize_t(const char*, size_t)>;
    bool flush(const Writer& write);

  private:
    // Writes from `buf`; returns false on a failure other than "full".
    bool write_some(const Writer& write, std::string& buf, bool audio);

    std::string audio_;
    std::string control_;
    bool pair_open_ = false;  // the last audio byte written was a pair's first DLE
};

}  // namespace v253
