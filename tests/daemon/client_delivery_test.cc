// What clients receive from the whole daemon when the line sends bursts far
// larger than a client's share of the bus at any one moment. (Caller names
// that are not UTF-8 are followed end to end through kalctl monitor.)

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "bus_client.h"
#include "daemon_fixture.h"
#include "service/vocabulary.h"

using namespace kal;
using namespace kal::test;

namespace {

class ClientDeliveryTest : public DaemonTest {
  protected:
    void TearDown() override { stop_daemon(); }

    // One line; a client registered and subscribed to `names`.
    void start_with_client(std::initializer_list<const char*> names) {
        ports_.add_adapter(1, "KL1001");
        start_daemon("Vending Listener", {"KAL_LINESIM_SPEED=100"});
        client_ = std::make_unique<BusClient>();
        ASSERT_TRUE(wait_for([&] { return client_->registerApp().str() == kal_ResponseCode_OK; }))
            << log();
        for (const char* name : names)
            ASSERT_TRUE(client_->subscribe(name).ok());
        line_ = std::make_unique<LineSimControl>("KL1001");
    }
    bool dropped() const { return logged("Removing distant object " + client_->uniqueName()); }

    std::unique_ptr<BusClient> client_;
    std::unique_ptr<LineSimControl> line_;
};

// A prompt client is never dropped for the size of a burst the daemon made
// itself: one Dial makes one digit event per digit, and a line can send
// digit events as fast as it likes.
TEST_F(ClientDeliveryTest, APromptClientReceivesEveryDigitOfLongDialsAndBursts) {
    start_with_client({kal_DigitDialed});
    const std::string digits(1200, '7');
    ASSERT_EQ(client_->call("Dial", "sssb", digits.c_str(), "KL1001", "T1", 0).str(),
              kal_ResponseCode_OK);
    ASSERT_TRUE(pump_until(
        {client_.get()}, [&] { return client_->received().size() == 1200 || dropped(); }, 120s))
        << client_->received().size();
    ASSERT_FALSE(dropped()) << "after " << client_->received().size() << " notifications";

    const std::string keys(1200, '#');
    ASSERT_EQ(line_->send("digits " + keys).substr(0, 7), "ok sent");
    ASSERT_TRUE(pump_until(
        {client_.get()}, [&] { return client_->received().size() == 2400 || dropped(); }, 120s))
        << client_->received().size();
    ASSERT_FALSE(dropped()) << "after " << client_->received().size() << " notifications";
    for (size_t i = 0; i < 2400; ++i) {
        ASSERT_EQ(client_->received()[i].userInfo.at(kal_DigitContentsKey).str(),
                  i < 1200 ? "7" : "#")
            << i;
    }
}

}  // namespace
