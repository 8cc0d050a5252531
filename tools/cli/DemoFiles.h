#pragma once

#include <cstddef>
#include <string>

// Files the demo sends and checks.
namespace quill_cli {

// Writes `size` bytes of a position-dependent pattern (misplaced blocks show in a comparison).
bool writePatternFile(const std::string& path, std::size_t size, unsigned seed);
// Writes a width x height colour photograph-like picture as a JPEG.
bool writeJpegPicture(const std::string& path, int width, int height);
// Width and height of a JPEG from its frame header; false when it is not a readable JPEG.
bool jpegSize(const std::string& path, int& width, int& height);

}  // namespace quill_cli
