// Texts on their way to the bus: whatever the bytes, D-Bus accepts the
// result and a reader sees the characters that were meant.

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <string>

#include "private_bus.h"
#include "service/bus_values.h"
#include "service/sd_bus_handles.h"

using namespace kal;

namespace {

// Whether sd-bus itself takes `text` as a string argument.
bool sd_bus_accepts(sd_bus* bus, const std::string& text) {
    sd_bus_message* m = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(bus, &m, "a.b", "/", "a.b", "C"), 0);
    MessagePtr message(m);
    return sd_bus_message_append_basic(m, 's', text.c_str()) >= 0;
}

TEST(BusText, Latin1BytesBecomeTheirCharactersAndValidUtf8IsKept) {
    EXPECT_EQ(bus::as_bus_text("5551234 JOS\xc9"), "5551234 JOS\u00c9");
    EXPECT_EQ(bus::as_bus_text("M\xdcLLER \xff"), "M\u00dcLLER \u00ff");
    EXPECT_EQ(bus::as_bus_text("Jos\u00e9 \u20ac \U0001F600"), "Jos\u00e9 \u20ac \U0001F600");
    // Mixed: each sequence judged on its own.
    EXPECT_EQ(bus::as_bus_text("\u00e9\xe9"), "\u00e9\u00e9");
    // A text ends at its first NUL, as a C string does.
    EXPECT_EQ(bus::as_bus_text(std::string("Jane\0junk", 9)), "Jane");
    EXPECT_EQ(bus::as_bus_text(""), "");
}

TEST(BusText, EveryResultIsAcceptedBySdBusAndValidityAgreesWithIt) {
    test::PrivateBus private_bus;
    sd_bus* raw = nullptr;
    ASSERT_GE(sd_bus_open_system(&raw), 0);
    BusPtr bus(raw);
    const std::string cases[] = {
        "plain",
        "\xc9",                  // Latin-1 lead byte alone
        "\xc3",                  // a sequence cut short at the end
        "\xc3(",                 // a lead byte without its continuation
        "\x80",                  // a continuation byte alone
        "\xc0\xaf",              // overlong '/'
        "\xe0\x80\xaf",          // overlong, three bytes
        "\xed\xa0\x80",          // a UTF-16 surrogate
        "\xf4\x90\x80\x80",      // past U+10FFFF
        "\xef\xbf\xbe",          // U+FFFE
        "\xef\xb7\x90",          // U+FDD0
        "\xf0\x9f\x98\x80",      // U+1F600, fine
        "\xe2\x82\xac",          // U+20AC, fine
        "\xf8\x88\x80\x80\x80",  // five-byte form
        "Jane \xc9",             // plain text, then a Latin-1 byte
        "caf\xc3",               // plain text, then a sequence cut short
        "ok \xed\xa0\x80 ok",    // a surrogate between plain words
        "Ren\xc3\xa9"
        "e Dupont",  // plain text around a valid sequence
    };
    for (const std::string& bytes : cases) {
        SCOPED_TRACE(bytes);
        const std::string text = bus::as_bus_text(bytes);
        EXPECT_TRUE(sd_bus_accepts(bus.get(), text));
        EXPECT_EQ(bus::is_bus_text(bytes), sd_bus_accepts(bus.get(), bytes));
        EXPECT_EQ(text == bytes, bus::is_bus_text(bytes));
    }
}

}  // namespace
