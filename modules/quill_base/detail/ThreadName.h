#pragma once

#include <string>

namespace quill_detail {

// Names the calling thread for debuggers and profilers (truncated to what the platform allows).
void setCurrentThreadName(const std::string& name);

}  // namespace quill_detail
