#pragma once

#include <string>

#if defined(_WIN32)
#include <windows.h>
#else
#include <pthread.h>
#endif

namespace quill_test {

// The name the system shows for the calling thread (debuggers, crash reports, top).
inline std::string currentThreadName() {
#if defined(_WIN32)
  using GetThreadDescriptionFunction = HRESULT(WINAPI*)(HANDLE, PWSTR*);
  const auto getDescription =
      reinterpret_cast<GetThreadDescriptionFunction>(reinterpret_cast<void*>(
          GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetThreadDescription")));
  PWSTR wide = nullptr;
  if (getDescription == nullptr || FAILED(getDescription(GetCurrentThread(), &wide))) {
    return "";
  }
  char name[256] = {};
  WideCharToMultiByte(CP_UTF8, 0, wide, -1, name, sizeof name, nullptr, nullptr);
  LocalFree(wide);
  return name;
#else
  char name[16] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
#endif
}

}  // namespace quill_test
