#pragma once

#include <quill_base/quill_base_export.h>

#include <string>

// Threads of the platform layer and of the libraries built on it.
class QUILL_BASE_EXPORT ThreadUtils {
public:
  // Names the calling thread for debuggers, profilers and `top -H` (cut to what the platform
  // allows: 15 bytes on Linux). Each long-lived thread of the libraries carries a name of its own,
  // so that a profile tells the network thread from a serial queue's.
  static void setCurrentThreadName(const std::string& name);
};
