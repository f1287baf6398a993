#pragma once
// Ending a run on SIGINT or SIGTERM: the temporary files and folders the run
// made are removed and the process exits with 128 + the signal's number.

namespace symlift::cli {

// Blocks SIGINT and SIGTERM in the calling thread (every thread started
// afterwards inherits that) and starts the one thread that waits for them.
// Call first thing in main, before any other thread exists.
void installInterruptionHandling();

}  // namespace symlift::cli
