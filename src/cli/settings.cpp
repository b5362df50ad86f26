// The run-wide settings themselves and the two facts about the process that
// start-up records beside them (see settings.h).
#include "cli/settings.h"

// The module this file reports as in failure messages.
[[maybe_unused]] static constexpr const char* kModule = "vondral.cpp";

RunSettings Settings;
int StderrIsTerminal = 0;
int PageSize = 4096;
