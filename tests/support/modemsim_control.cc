#include "modemsim_control.h"

#include <signal.h>

#include <stdexcept>

namespace kal::test {

namespace {

std::string bytes_from_reply(const std::string& reply) {
    if (reply.rfind("ok", 0) != 0)
        throw std::runtime_error("kal-modemsim: " + reply);
    std::string hex = reply.size() > 3 ? reply.substr(3) : "";
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

}  // namespace

ModemSim::ModemSim(const std::string& link_path, const std::string& socket_path, double speed,
                   const std::vector<std::string>& quirks) {
    std::vector<std::string> argv = {
        bin_path("kal-modemsim"), "--link", link_path, "--socket", socket_path, "--speed",
        std::to_string(speed)};
    for (const auto& q : quirks) {
        argv.push_back("--quirk");
        argv.push_back(q);
    }
    // The emulator plays the hardware: it needs no umockdev of its own
    // (a string without '=' removes the variable).
    process_ = std::make_unique<ChildProcess>(argv, std::vector<std::string>{"LD_PRELOAD"});
    control_ = std::make_unique<LineSimControl>(socket_path);
    if (!control_->connected() || control_->send("status").rfind("ok", 0) != 0)
        throw std::runtime_error("kal-modemsim did not start at " + socket_path);
}

ModemSim::~ModemSim() {
    control_.reset();
    process_->signal(SIGTERM);
    process_->wait_exit();
}

std::string ModemSim::played(int n) {
    return bytes_from_reply(send(n > 0 ? "played " + std::to_string(n) : "played"));
}

std::string ModemSim::recorded(int n) {
    return bytes_from_reply(send(n > 0 ? "recorded " + std::to_string(n) : "recorded"));
}

}  // namespace kal::test
