#include "detail/ThreadName.h"

#if defined(__linux__) || defined(__APPLE__)
#include <pthread.h>
#endif

namespace quill_detail {

void setCurrentThreadName(const std::string& name) {
#if defined(__linux__)
  // Linux allows 15 characters plus the terminator.
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
#elif defined(__APPLE__)
  pthread_setname_np(name.c_str());
#else
  (void)name;
#endif
}

}  // namespace quill_detail
