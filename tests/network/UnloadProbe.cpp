// Loads UnloadPlugin (and with it quill_network), starts a download through it, and unloads it
// while the download is in flight. Arguments: <plug-in> <quill_network library> <url> <path>.
// Exit status 0 when that went through and quill_network is gone from the process; 4 when it went
// through but the library stayed loaded; 2 when no byte arrived; 3 when loading failed; anything
// else means it crashed.

#include <dlfcn.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: " << argv[0] << " <plug-in> <library> <url> <path>\n";
    return 64;
  }
  void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::cerr << dlerror() << "\n";
    return 3;
  }
  using Start = int (*)(const char*, const char*);
  auto start = reinterpret_cast<Start>(dlsym(plugin, "quill_probe_start_download"));
  if (start == nullptr) {
    std::cerr << dlerror() << "\n";
    return 3;
  }
  if (start(argv[3], argv[4]) != 1) {
    std::cerr << "no byte arrived\n";
    return 2;
  }
  if (dlclose(plugin) != 0) {
    std::cerr << dlerror() << "\n";
    return 3;
  }
  void* still = dlopen(argv[2], RTLD_NOW | RTLD_NOLOAD);
  if (still != nullptr) {
    std::cerr << "quill_network is still loaded\n";
    dlclose(still);
    return 4;
  }
  std::cout << "quill_network unloaded" << std::endl;
  return 0;
}
