#include <quill_base/ThreadUtils.h>

#if defined(__linux__) || defined(__APPLE__)
#include <pthread.h>
#elif defined(_WIN32)
#include <windows.h>
#endif

#if defined(_WIN32)
namespace {

// SetThreadDescription came with Windows 10 1607: looked up at run time, so that the DLL still
// loads where it is missing (the thread then simply has no name).
using SetThreadDescriptionFunction = HRESULT(WINAPI*)(HANDLE, PCWSTR);

SetThreadDescriptionFunction setThreadDescription() {
  static const auto function = [] {
    HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    return kernel == nullptr
               ? nullptr
               : reinterpret_cast<SetThreadDescriptionFunction>(
                     reinterpret_cast<void*>(GetProcAddress(kernel, "SetThreadDescription")));
  }();
  return function;
}

}  // namespace
#endif

void ThreadUtils::setCurrentThreadName(const std::string& name) {
#if defined(__linux__)
  // Linux allows 15 characters plus the terminator.
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
#elif defined(__APPLE__)
  pthread_setname_np(name.c_str());
#elif defined(_WIN32)
  const auto set = setThreadDescription();
  if (set == nullptr || name.empty()) {
    return;
  }
  const int length =
      MultiByteToWideChar(CP_UTF8, 0, name.data(), static_cast<int>(name.size()), nullptr, 0);
  if (length <= 0) {
    return;
  }
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, name.data(), static_cast<int>(name.size()), wide.data(), length);
  set(GetCurrentThread(), wide.c_str());
#else
  (void)name;
#endif
}
