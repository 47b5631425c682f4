#pragma once

// A running voice-modem emulator (kal-modemsim) for a test: the process and
// a connection to its control socket. FakeAdapters::add_voice_modem() makes
// one behind a umockdev ttyACM port; a test of the emulator alone makes one
// with its own link path.
//
//     ModemSim& modem = ports.add_voice_modem({.serial = "12345678"});
//     EXPECT_EQ(modem.send("ring"), "ok sent RING");
//     EXPECT_THAT(modem.send("wait-command AT+VTX"), StartsWith("ok AT+VTX"));
//
// The vocabulary is in src/modemsim/control.h (`help` lists it).

#include <memory>
#include <string>
#include <vector>

#include "linesim_control.h"
#include "test_support.h"

namespace kal::test {

class ModemSim {
  public:
    // Starts kal-modemsim with its port linked at `link_path`, its control
    // socket at `socket_path`, audio `speed` times faster and the quirks
    // given as "name=value"; waits until it answers.
    ModemSim(const std::string& link_path, const std::string& socket_path, double speed,
             const std::vector<std::string>& quirks = {});
    ~ModemSim();
    ModemSim(const ModemSim&) = delete;
    ModemSim& operator=(const ModemSim&) = delete;

    // One command, its whole reply (see LineSimControl::send).
    std::string send(const std::string& command) { return control_->send(command); }
    // The bytes of +VTX stream n (1-based; 0: the last), decoded from hex.
    std::string played(int n = 0);
    // The audio +VRX stream n sent (1-based; 0: the last).
    std::string recorded(int n = 0);

  private:
    std::unique_ptr<ChildProcess> process_;
    std::unique_ptr<LineSimControl> control_;
};

}  // namespace kal::test
