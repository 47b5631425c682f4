// Serving clients: the registration filter, registration itself, owning the
// bus name, and the published interface.

#include "service/spokesman.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-event.h>

#include <map>
#include <regex>
#include <tuple>
#include <vector>

#include "service/bus_contract.h"
#include "service/vocabulary.h"
#include "spokesman_fixture.h"

using namespace kal;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr const char kVersionRefusal[] =
    "#35 Invalid software version: The version of the application you are running (QZ4.0.6) is "
    "not one of the versions supported by the Orvane system services currently installed "
    "(KALSpokesman accepts: QZ4.0.5 BD1.0.7).";

TEST_F(SpokesmanTest, RequestsBeforeRegistrationAreRefusedWithException16) {
    start();
    BusClient c;
    auto refused = [](const BusReply& reply) {
        return reply.errorName == "com.orvane.KALException" &&
               reply.errorMessage == "#16 Unauthenticated request";
    };
    EXPECT_TRUE(refused(c.call("Resources", "")));
    EXPECT_TRUE(refused(c.subscribe("KALRingDetect")));
    EXPECT_TRUE(refused(c.call("HangUpResource", "ss", "A1", "tok")));
    EXPECT_TRUE(logged("Disallowing unauthenticated request for connection " + c.uniqueName() +
                       ": com.orvane.KALActionRequesting.Resources() on /com/orvane/DeviceMaster"));
    // The standard interfaces are not the protocol's and always pass.
    EXPECT_TRUE(c.callMethod(kal_DO_Server_Name, kal_BusObjectPath,
                             "org.freedesktop.DBus.Introspectable", "Introspect")
                    .ok());
    EXPECT_TRUE(
        c.callMethod(kal_DO_Server_Name, kal_BusObjectPath, "org.freedesktop.DBus.Peer", "Ping")
            .ok());

    EXPECT_EQ(c.registerApp().str(), "KALResponseCodeOK");
    const BusReply served = c.call("Resources", "");
    EXPECT_TRUE(served.ok()) << served.errorName;
    EXPECT_THAT(served.strings(), IsEmpty());
}

TEST_F(SpokesmanTest, RegistrationAcceptsExactlyTheTwoProtocolVersions) {
    start();
    BusClient old_version("/old");
    const BusReply refused = old_version.registerApp("QZ4.0.6");
    EXPECT_EQ(refused.errorName, "com.orvane.KALException");
    EXPECT_EQ(refused.errorMessage, kVersionRefusal);
    EXPECT_EQ(old_version.call("Resources", "").errorMessage, "#16 Unauthenticated request");
    EXPECT_EQ(old_version.registerApp("QZ4.0.5 BD1.0.7").errorName, "com.orvane.KALException");

    BusClient malformed("/malformed");
    EXPECT_EQ(malformed.registerApp("").str(), "KALResponseCodeERRMalformedRequest");
    EXPECT_EQ(
        malformed.call("RegisterApplication", "sssobs", "App", "Vendor", "", "/", 0, "QZ4.0.5")
            .str(),
        "KALResponseCodeERRMalformedRequest");
    EXPECT_EQ(malformed.call("Resources", "").errorMessage, "#16 Unauthenticated request");

    BusClient qz("/qz"), bd("/bd");
    EXPECT_EQ(qz.registerApp("QZ4.0.5").str(), "KALResponseCodeOK");
    EXPECT_EQ(bd.registerApp("BD1.0.7").str(), "KALResponseCodeOK");
    // A second registration replaces nothing: the client is listed twice.
    EXPECT_EQ(qz.registerApp("QZ4.0.5").str(), "KALResponseCodeOK");
    const auto primaries = server_->get<std::vector<Proxy>>(
        [](KALSpokesman& s) { return s.registry().primaryDistants(); });
    const Proxy q{qz.uniqueName(), "/qz"}, b{bd.uniqueName(), "/bd"};
    EXPECT_THAT(primaries, ElementsAre(q, b, q));
}

// (method, direction, type, name) of every argument of the protocol, in order.
using Signature = std::vector<std::tuple<std::string, std::string, std::string, std::string>>;

Signature protocol_of(const std::string& xml) {
    Signature out;
    const auto start = xml.find("<interface name=\"com.orvane.KALActionRequesting\">");
    const auto end = xml.find("</interface>", start);
    if (start == std::string::npos || end == std::string::npos)
        return out;
    const std::string body = xml.substr(start, end - start);
    auto attribute = [](const std::string& tag, const std::string& name) {
        std::smatch m;
        std::regex re(name + "=\"([^\"]*)\"");
        return std::regex_search(tag, m, re) ? m[1].str() : std::string();
    };
    const std::regex tag_re("<(method|arg)\\b[^>]*>");
    std::string method;
    for (std::sregex_iterator it(body.begin(), body.end(), tag_re), done; it != done; ++it) {
        const std::string tag = it->str();
        if ((*it)[1] == "method") {
            method = attribute(tag, "name");
            out.emplace_back(method, "", "", "");
        } else {
            const std::string direction = attribute(tag, "direction");
            out.emplace_back(method, direction.empty() ? "in" : direction, attribute(tag, "type"),
                             attribute(tag, "name"));
        }
    }
    return out;
}

TEST_F(SpokesmanTest, IntrospectionShowsExactlyTheContract) {
    start();
    BusClient c;
    const BusReply reply = c.callMethod(kal_DO_Server_Name, kal_BusObjectPath,
                                        "org.freedesktop.DBus.Introspectable", "Introspect");
    ASSERT_TRUE(reply.ok()) << reply.errorName;
    const std::string contract =
        read_file(std::string(KAL_SOURCE_DIR) + "/data/dbus/com.orvane.devicemaster.xml");
    const Signature expected = protocol_of(contract);
    ASSERT_GT(expected.size(), 24u);
    EXPECT_EQ(protocol_of(reply.str()), expected);
}

using SpokesmanDeathTest = SpokesmanTest;

TEST_F(SpokesmanDeathTest, NameOwnedByAnotherProcessEndsTheDaemonWithStatusOne) {
    BusClient other;
    ASSERT_GE(sd_bus_request_name(other.bus(), kal_DO_Server_Name, 0), 0);
    EXPECT_EXIT(
        {
            sd_event* loop = nullptr;
            sd_event_new(&loop);
            KALSpokesman spokesman;
            spokesman.startServing(loop);
            std::exit(0);
        },
        ::testing::ExitedWithCode(1),
        "Couldn't connect to distributed objects as server com\\.orvane\\.devicemaster\\."
        "listener\\.v2\\. Perhaps another instance is running\\?");
}

}  // namespace
