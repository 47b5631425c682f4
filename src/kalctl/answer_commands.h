#pragma once

// kalctl messages, calls and web: the answering machine's messages, its
// call log and the address of its messages page, through kal-answer's D-Bus interface (never its
// database), so that they work for anyone the bus policy lets in.

#include <iosfwd>
#include <vector>

#include "kalctl/cli.h"

namespace kal::kalctl {

// Their entries in kalctl's command table.
std::vector<CommandDescription> answer_command_descriptions();
// True for the commands of this file.
bool is_answer_command(const std::string& command);
// Runs one; returns the exit status. Throws UsageError and Failure; an
// unreachable kal-answer is reported here with kExitNoDaemon.
int run_answer_command(const Invocation& inv, std::ostream& out, std::ostream& err);

}  // namespace kal::kalctl
