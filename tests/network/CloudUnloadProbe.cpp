// Loads quill_cloud.dll with LoadLibraryW (this program is not linked to it), then
// CloudUnloadPlugin, downloads a file through the plug-in, frees the plug-in and the library, and
// checks that quill_cloud.dll has left the process. Arguments: <quill_cloud.dll> <plug-in> <url>
// <user directory> <download directory> <file name>. Exit status 0 when all that went through; 2
// when the download failed; 3 when loading failed; 4 when quill_cloud.dll stayed loaded; anything
// else means it crashed.

#include <windows.h>

#include <iostream>
#include <string>

namespace {

std::string narrow(const wchar_t* wide) {
  const int length = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(length > 0 ? length - 1 : 0), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide, -1, utf8.data(), length, nullptr, nullptr);
  return utf8;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc != 7) {
    std::cerr << "usage: probe <quill_cloud.dll> <plug-in> <url> <user> <directory> <name>\n";
    return 64;
  }
  HMODULE library = LoadLibraryW(argv[1]);
  HMODULE plugin = library != nullptr ? LoadLibraryW(argv[2]) : nullptr;
  if (plugin == nullptr) {
    std::cerr << "cannot load: error " << GetLastError() << "\n";
    return 3;
  }
  using Download = int (*)(const char*, const char*, const char*, const char*);
  const auto download = reinterpret_cast<Download>(
      reinterpret_cast<void*>(GetProcAddress(plugin, "quill_probe_cloud_download")));
  if (download == nullptr) {
    std::cerr << "the plug-in has no entry point\n";
    return 3;
  }
  const std::string url = narrow(argv[3]);
  const std::string user = narrow(argv[4]);
  const std::string directory = narrow(argv[5]);
  const std::string name = narrow(argv[6]);
  if (download(url.c_str(), user.c_str(), directory.c_str(), name.c_str()) != 1) {
    std::cerr << "the download failed\n";
    return 2;
  }
  // Where a hang happened shows in the output: each step is reported as it ends.
  std::cerr << "downloaded; the service is destroyed" << std::endl;
  if (!FreeLibrary(plugin)) {
    std::cerr << "FreeLibrary failed: error " << GetLastError() << "\n";
    return 3;
  }
  std::cerr << "plug-in freed" << std::endl;
  if (!FreeLibrary(library)) {
    std::cerr << "FreeLibrary failed: error " << GetLastError() << "\n";
    return 3;
  }
  std::cerr << "quill_cloud.dll freed" << std::endl;
  if (GetModuleHandleW(argv[1]) != nullptr) {
    std::cerr << "quill_cloud.dll is still loaded\n";
    return 4;
  }
  std::cout << "quill_cloud.dll unloaded" << std::endl;
  return 0;
}
