#pragma once

// The commands that stay on a call and answer the daemon's requests for it:
// `kalctl script` (a touch-tone menu whose scripts kalctl runs) and
// `kalctl vmcheck` (a remote caller walking a folder of messages).

#include <iosfwd>

#include "kalctl/cli.h"
#include "kalctl/session.h"

namespace kal::kalctl {

// Checks what can be checked before connecting. Throws UsageError, or
// Failure for files that cannot be used.
void validate_script(const Invocation& inv);
void validate_vmcheck(const Invocation& inv);

// Each starts its session and serves it until it ends; returns the exit
// status.
int cmd_script(Session& session, const Invocation& inv, std::ostream& out, std::ostream& err);
int cmd_vmcheck(Session& session, const Invocation& inv, std::ostream& out, std::ostream& err);

}  // namespace kal::kalctl
