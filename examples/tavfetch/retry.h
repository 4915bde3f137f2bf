// When a failed transfer is tried again.
#ifndef EXAMPLES_TAVFETCH_RETRY_H
#define EXAMPLES_TAVFETCH_RETRY_H

#include <chrono>

#include "result.h"

// True when the failure may pass and the user allows another attempt. `delay` is then what to wait
// before it: what the server asks for, else what the user set, else a time that doubles.
bool choose_retry(const transfer& item, const transfer_result& result,
                  std::chrono::milliseconds* delay);

#endif
