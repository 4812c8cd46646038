// The kestrow commands.
#pragma once

#include "Session.h"

namespace kestrow::tool {

// Runs the session's command; returns the exit status or throws
// CommandError.
int runCommand(Session& session);

} // namespace kestrow::tool
