#pragma once
// The run itself: reads the options, takes the manual or build-phase route and
// hands the dSYMs to processing.

#include "cli/options.h"

namespace symlift::cli {

// The whole run for the process's arguments, with interruption handling;
// returns the run's status once every thread of the run has ended.
int runMain(int argc, char** argv);

class RunReport;

// The run for the given argument words (program path first), reading the
// process environment in build-phase mode, telling the report (when given)
// what it does. Returns the exit status.
int run(const ArgumentList& arguments, RunReport* report = nullptr);

}  // namespace symlift::cli
