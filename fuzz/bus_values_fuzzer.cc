// The D-Bus argument readers against any message a client could send: the
// input is the bytes of one message as it arrives on the wire, after the
// authentication a client performs. sd-bus's own parser takes it from a real
// socket pair (so the readers see only what sd-bus accepts, as in the
// daemon), and every argument is read with the reader the daemon's methods
// use for its type: strings, integers, booleans, object paths, string
// lists, a{sv} dictionaries and variants of any depth. The readers must fail
// cleanly, never crash, on a type they do not expect, and every value read
// must go back on the bus: a notification a client redistributes is sent on
// to others as it was read.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "base/value.h"
#include "fuzz_support.h"
#include "log/kallog.h"
#include "service/bus_method.h"
#include "service/bus_values.h"

using namespace kal;
using namespace kal::bus;

namespace {

// A client's side of the authentication, ahead of its first message.
constexpr char kAuth[] = "\0AUTH ANONYMOUS\r\nBEGIN\r\n";
constexpr size_t kMaxMessage = 64 * 1024;

// A value read from a client goes back on the bus in a message of our own.
void send_back(sd_bus* bus, const Value& value) {
    sd_bus_message* out = nullptr;
    if (sd_bus_message_new_signal(bus, &out, "/fuzz", "org.example.Fuzz", "Back") < 0)
        __builtin_trap();
    if (append_variant(out, value) < 0)
        __builtin_trap();
    sd_bus_message_unref(out);
}

// Reads an argument with the daemon's reader for a method parameter of type T.
template <class T>
int read_as(sd_bus_message* m) {
    T value{};
    return Arg<T>::read(m, value);
}

// Reads the argument at the cursor with the reader for its type; < 0 when
// the reader gave up (the daemon then gives up on the message), 0 at the end.
int read_argument(sd_bus* bus, sd_bus_message* m) {
    char type;
    const char* contents;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r <= 0)
        return r;
    Value value;
    switch (type) {
        case 's':
            return read_as<OptString>(m);
        case 'o':
            return read_as<ObjectPath>(m);
        case 'i':
            return read_as<int32_t>(m);
        case 'u':
            return read_as<uint32_t>(m);
        case 'b':
            return read_as<bool>(m);
        case 'v':
            r = Arg<Value>::read(m, value);
            break;
        case 'a':
            if (strcmp(contents, "s") == 0)
                return read_as<StringList>(m);
            if (strcmp(contents, "{sv}") == 0) {
                ValueDict dict;
                r = Arg<ValueDict>::read(m, dict);
                value = Value(std::move(dict));
                break;
            }
            r = read_value(m, value);
            break;
        default:
            r = read_value(m, value);
            break;
    }
    if (r >= 0)
        send_back(bus, value);
    return r < 0 ? r : 1;
}

int on_message(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* bus = static_cast<sd_bus*>(userdata);
    // The arguments in order, as a method's reader takes them.
    while (read_argument(bus, m) > 0) {
    }
    // Readers that find another type than theirs at the start.
    for (int (*reader)(sd_bus_message*) :
         {read_as<ValueDict>, read_as<Value>, read_as<StringList>}) {
        if (sd_bus_message_rewind(m, true) >= 0)
            (void)reader(m);
    }
    return 1;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kal::fuzz::use_private_root(KAL_WARN);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxMessage)
        size = kMaxMessage;
    kal::fuzz::SocketPair pair = kal::fuzz::socket_pair();
    sd_bus* bus = nullptr;
    sd_id128_t id;
    if (sd_bus_new(&bus) < 0 || sd_id128_randomize(&id) < 0)
        __builtin_trap();
    const int fd = pair.ours.release();  // the bus owns it from here
    if (sd_bus_set_fd(bus, fd, fd) < 0 || sd_bus_set_server(bus, 1, id) < 0 ||
        sd_bus_set_anonymous(bus, 1) < 0 || sd_bus_add_filter(bus, nullptr, on_message, bus) < 0 ||
        sd_bus_start(bus) < 0)
        __builtin_trap();

    std::string wire(kAuth, sizeof kAuth - 1);
    wire.append(reinterpret_cast<const char*>(data), size);
    kal::fuzz::write_and_close(pair.theirs.get(), reinterpret_cast<const uint8_t*>(wire.data()),
                               wire.size());
    // Everything is in the socket already: stop when no more can be done
    // without waiting, or the bus gave up on the peer.
    for (int step = 0; step < 256; ++step)
        if (sd_bus_process(bus, nullptr) <= 0)
            break;
    sd_bus_close_unref(bus);
    return 0;
}
