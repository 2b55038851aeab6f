// The command: parses the options, runs one flow, gives the exit status.
#pragma once

namespace nodelink {

// Returns the process's exit status: 0, or -1 when the device report failed.
int RunCommand(int argc, char** argv);

}  // namespace nodelink
