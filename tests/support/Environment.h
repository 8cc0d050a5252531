#pragma once

#include <cstdlib>
#include <string>

namespace quill_test {

// Sets or removes a variable of this process's environment, as the library's getenv sees it.
inline void setEnvironment(const std::string& name, const std::string& value) {
#if defined(_WIN32)
  _putenv_s(name.c_str(), value.c_str());
#else
  ::setenv(name.c_str(), value.c_str(), 1);
#endif
}

inline void unsetEnvironment(const std::string& name) {
#if defined(_WIN32)
  _putenv_s(name.c_str(), "");  // an empty value removes the variable on Windows
#else
  ::unsetenv(name.c_str());
#endif
}

}  // namespace quill_test
