#include "VipsLibrary.h"

#include <quill_base/Logger.h>

#include <mutex>
#include <string>

#include <dlfcn.h>

namespace quill_base_detail {
namespace {

using Handle = void*;

Handle openLibrary(const char* name) {
  // Local: the symbols serve only this file and must not interpose on the host's.
  return dlopen(name, RTLD_NOW | RTLD_LOCAL);
}

void* findSymbol(Handle library, const char* name) {
  return dlsym(library, name);
}

std::string lastLoadError() {
  const char* text = dlerror();
  return text != nullptr ? text : "unknown error";
}

// The library this build was compiled against first, then the usual names.
const char* const kLibraryNames[] = {
#if defined(QUILL_VIPS_SONAME)
    QUILL_VIPS_SONAME,
#endif
#if defined(__APPLE__)
    "libvips.42.dylib",
#endif
    "libvips.so.42"};

template <typename Function>
bool bind(Handle library, const char* name, Function& function, std::string& missing) {
  function = reinterpret_cast<Function>(findSymbol(library, name));
  if (function == nullptr && missing.empty()) {
    missing = name;
  }
  return function != nullptr;
}

VipsLibrary loaded;

bool load() {
  Handle library = nullptr;
  std::string errors;
  for (const char* name : kLibraryNames) {
    library = openLibrary(name);
    if (library != nullptr) {
      break;
    }
    errors += (errors.empty() ? "" : "; ") + lastLoadError();
  }
  if (library == nullptr) {
    QLOG_ERROR("libvips could not be loaded: " << errors);
    return false;
  }
  // Never unloaded: libvips keeps threads and types registered with GLib for the process's life.
  std::string missing;
  bind(library, "vips_init", loaded.init, missing);
  bind(library, "vips_error_buffer", loaded.errorBuffer, missing);
  bind(library, "vips_error_clear", loaded.errorClear, missing);
  bind(library, "vips_cache_set_max", loaded.cacheSetMax, missing);
  bind(library, "g_object_unref", loaded.objectUnref, missing);
  bind(library, "vips_image_new_from_file", loaded.imageNewFromFile, missing);
  bind(library, "vips_image_get_width", loaded.imageGetWidth, missing);
  bind(library, "vips_image_get_height", loaded.imageGetHeight, missing);
  bind(library, "vips_image_hasalpha", loaded.imageHasAlpha, missing);
  bind(library, "vips_thumbnail", loaded.thumbnail, missing);
  bind(library, "vips_array_double_new", loaded.arrayDoubleNew, missing);
  bind(library, "vips_area_unref", loaded.areaUnref, missing);
  bind(library, "vips_flatten", loaded.flatten, missing);
  bind(library, "vips_jpegsave_buffer", loaded.jpegsaveBuffer, missing);
  bind(library, "g_free", loaded.free, missing);
  if (!missing.empty()) {
    QLOG_ERROR("libvips lacks " << missing);
    return false;
  }
  if (loaded.init("quill_base") != 0) {
    QLOG_ERROR("libvips failed to start: " << loaded.errorBuffer());
    loaded.errorClear();
    return false;
  }
  // Avatars are rewritten under the same names; a cached operation could answer with old pixels.
  loaded.cacheSetMax(0);
  return true;
}

}  // namespace

const VipsLibrary* vipsLibrary() {
  static std::once_flag once;
  static bool ready = false;
  std::call_once(once, [] { ready = load(); });
  return ready ? &loaded : nullptr;
}

}  // namespace quill_base_detail
