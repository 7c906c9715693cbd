// Parses zelctl's command line and runs the chosen command.
#pragma once

namespace zelctl {

// Returns the exit code (see kExitCodesHelp): 2 for a usage error, 3 when the
// command threw.
int RunCommandLine(int argc, char** argv);

}  // namespace zelctl
