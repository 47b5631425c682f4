// kalctl: talk to kaldevicemaster from a shell. See `kalctl --help`.

#include <iostream>
#include <string>
#include <vector>

#include "kalctl/cli.h"
#include "kalctl/commands.h"

int main(int argc, char** argv) {
    using namespace kal::kalctl;
    const std::vector<std::string> args(argv + 1, argv + argc);
    Invocation inv;
    try {
        inv = parse_command_line(args);
    } catch (const UsageError& e) {
        const std::string where = e.command().empty() ? "kalctl" : "kalctl " + e.command();
        std::cerr << where << ": " << e.what() << "\n(try '" << where << " --help')" << std::endl;
        return kExitUsage;
    }
    return run(inv, std::cout, std::cerr);
}
