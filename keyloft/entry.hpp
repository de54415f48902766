#pragma once

namespace keyloft {

// Runs one sub-command; every failure is printed as one "Error: " line on standard output.
// Returns 0 whether the command succeeded or failed.
int runEntry(int argc, char** argv);

}  // namespace keyloft
