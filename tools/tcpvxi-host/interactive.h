// The prompt on a terminal: line editing, history and completion of
// commands and instrument names (readline when present), interrupt reports
// printed above the prompt without tearing the line being typed, and
// Ctrl-C that drops the line being typed.
#pragma once

#include <functional>
#include <string>

#include "commands.h"

namespace host {

void interactive(Session& s, const std::function<void(const std::string&)>& run);

// Wakes the prompt's wait; safe in a signal handler.  Ctrl-C may be
// delivered to any thread of the process (the driver's receive threads
// among them), so the handler cannot count on interrupting the prompt's
// own poll.
void interactiveWake();

}  // namespace host
