#pragma once

namespace quill_network_detail {

// Initialises libcurl for the process once, whatever the number of callers or threads. libcurl is
// never cleaned up again: other code of the host may still use it while the process exits.
// False when the initialisation failed (the failure is logged once).
bool ensureCurlGlobalInit();

}  // namespace quill_network_detail
