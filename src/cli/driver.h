#pragma once

namespace symlift::cli {

// The whole run: reads the options, takes the manual or build-phase route and
// returns (or exits with) the run's status.
int runMain(int argc, char** argv);

}  // namespace symlift::cli
