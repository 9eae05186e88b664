// The responder's reports of failures.
#include "autoresponder/responder/failure_report.h"

#include <cstring>
#include <iostream>
#include <new>
#include <stdexcept>

#include "lib/put.h"
#include "lib/text_encoding/idn.h"

void report_system_error(std::string_view what, int error) {
  std::cerr << what << std::strerror(error) << " (" << error << ")\n";
}

void end_run_for_reply_failure(bool sending) {
  try {
    throw;
  } catch (const orvik::idn::IdnaError& error) {
    messlog2(1, 0, "IDN conversion error: %s", error.what());
  } catch (const std::bad_alloc&) {
    messlog2(1, 0, "Program failed due to exhausted memory");
  } catch (const std::runtime_error& error) {
    if (!sending) throw;
    messlog2(1, 0, "Send error: %s", error.what());
  }
}
