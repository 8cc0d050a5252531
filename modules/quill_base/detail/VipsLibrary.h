#pragma once

#include <vips/vips.h>

namespace quill_base_detail {

// The libvips entry points that ImageUtils uses. libvips is loaded on first use instead of being
// linked: its dependency closure (about seventy libraries: glib, codecs, ImageMagick, poppler...)
// cost every process that links quill_base some 30 ms at start-up, while most images take the
// JPEG fast path and many processes never scale an image at all.
struct VipsLibrary {
  int (*init)(const char* argv0);
  const char* (*errorBuffer)();
  void (*errorClear)();
  void (*cacheSetMax)(int max);
  void (*objectUnref)(gpointer object);
  VipsImage* (*imageNewFromFile)(const char* name, ...);
  int (*imageGetWidth)(const VipsImage* image);
  int (*imageGetHeight)(const VipsImage* image);
  gboolean (*imageHasAlpha)(VipsImage* image);
  int (*thumbnail)(const char* filename, VipsImage** out, int width, ...);
  VipsArrayDouble* (*arrayDoubleNew)(const double* array, int n);
  void (*areaUnref)(VipsArea* area);
  int (*flatten)(VipsImage* in, VipsImage** out, ...);
  int (*jpegsaveBuffer)(VipsImage* in, void** buffer, size_t* length, ...);
  void (*free)(gpointer memory);
};

// Loads libvips and starts it, once for the process; null (and the reason logged) when it cannot
// be loaded or started. Safe to call from any thread.
const VipsLibrary* vipsLibrary();

}  // namespace quill_base_detail
