// The end of a run decided by one of its stages. A stage that must end the run
// reports why on standard error and throws Run_end; the exception unwinds
// through every owner (lock, results, connection) to the run's entry, which
// then ends the process as `status` says. Deliberately not a std::exception,
// so no stage's handler for library failures can swallow it.
#pragma once

#include "lib/put.h"

struct Run_end {
  // 0: the run is over and cleans up as every refused message does
  // (correct_exit()); otherwise the process exits with this status after the
  // message log has reported it, leaving the temporary files.
  int status = 0;
};

// Ends the run with status 0 from inside a stage.
[[noreturn]] inline void end_run() {
  throw Run_end{0};
}

// Makes a fatal message of the message log (lib/put.h) end the run by
// unwinding with Run_end{status} instead of exiting on the spot.
inline void unwind_fatal_messages() {
  set_fatal_message_end([](int status) { throw Run_end{status}; });
}
