#pragma once

#include <quill_base/quill_base_export.h>

#include <string>

// Image helpers on libvips (initialised once, on first use, from any thread).
class QUILL_BASE_EXPORT ImageUtils {
public:
  // Writes `source` scaled to fit within size x size as a JPEG at `target`: aspect ratio kept,
  // EXIF orientation applied, transparency flattened onto white. The target appears whole or not at
  // all (written to a temporary file beside it, then renamed). False for a size below 1, an
  // unreadable, truncated or non-image source, or a target that cannot be written.
  static bool scaleImage(int size, const std::string& source, const std::string& target);
};
