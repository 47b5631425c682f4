#pragma once

// The client server on a private bus, in a private KAL_ROOT whose log the
// tests read.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "bus_client.h"
#include "log/kallog.h"
#include "private_bus.h"
#include "service/spokesman.h"
#include "service_harness.h"
#include "test_support.h"

namespace kal::test {

class SpokesmanTest : public ::testing::Test {
  protected:
    SpokesmanTest() { kallogregister("KALDeviceMaster"); }

    void start(SpokesmanOptions options = SpokesmanOptions()) {
        server_ = std::make_unique<ServiceHarness>(options);
    }
    // A client registered (and subscribed to `names`) at `path`.
    std::unique_ptr<BusClient> client(std::initializer_list<const char*> names = {},
                                      const std::string& path = "/com/example/Listener",
                                      bool secondary = false) {
        auto c = std::make_unique<BusClient>(path);
        EXPECT_EQ(c->registerApp("QZ4.0.5", secondary).str(), "KALResponseCodeOK");
        for (const char* name : names)
            EXPECT_TRUE(c->subscribe(name).ok());
        return c;
    }
    std::string log() const { return read_file(root_.daemon_log()); }
    bool logged(const std::string& text) const { return log().find(text) != std::string::npos; }
    bool waitLogged(const std::string& text) {
        return wait_for([&] { return logged(text); });
    }
    bool subscribed(const BusClient& c, const std::string& name) {
        const Proxy proxy{c.uniqueName(), c.path()};
        return server_->get<bool>(
            [&](KALSpokesman& s) { return s.registry().isSubscribed(proxy, name); });
    }

    TempRoot root_;
    PrivateBus bus_;
    std::unique_ptr<ServiceHarness> server_;
};

}  // namespace kal::test
