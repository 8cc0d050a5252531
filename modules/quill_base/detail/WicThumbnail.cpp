#include "GeneralThumbnail.h"

#include "AreaAverage.h"
#include "JpegWriter.h"
#include "PixelOperations.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include <objbase.h>
#include <propidl.h>
#include <wincodec.h>

namespace quill_base_detail {
namespace {

// Owns one COM interface reference.
template <typename Interface>
class ComPtr {
public:
  ComPtr() = default;
  ComPtr(const ComPtr&) = delete;
  ComPtr& operator=(const ComPtr&) = delete;
  ~ComPtr() { reset(); }
  Interface* operator->() const { return pointer; }
  Interface* get() const { return pointer; }
  // The place a creating call writes a new reference to (any held one is released first).
  Interface** put() {
    reset();
    return &pointer;
  }
  void reset() {
    if (pointer != nullptr) {
      pointer->Release();
      pointer = nullptr;
    }
  }

private:
  Interface* pointer = nullptr;
};

// COM on the calling thread for the length of one call. A thread the host already entered into an
// apartment of either kind works as it is: WIC's objects are free-threaded.
class ComScope {
public:
  ComScope() {
    const HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    owned = SUCCEEDED(result);
    usable = owned || result == RPC_E_CHANGED_MODE;
  }
  ComScope(const ComScope&) = delete;
  ComScope& operator=(const ComScope&) = delete;
  ~ComScope() {
    if (owned) {
      CoUninitialize();
    }
  }
  bool ready() const { return usable; }

private:
  bool owned = false;
  bool usable = false;
};

std::string hex(HRESULT result) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(result));
  return text;
}

std::wstring widePath(const std::string& path) {
  const int length = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.data(),
                                         static_cast<int>(path.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(std::max(length, 0)), L'\0');
  if (length > 0) {
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.data(), static_cast<int>(path.size()),
                        wide.data(), length);
  }
  return wide;
}

// The size a PNG's header (IHDR) claims, read before the file is handed to WIC: some WIC PNG
// decoders (Wine's among them) decode the whole picture as soon as the file is opened, before its
// size can be asked. False for anything that is not a PNG.
bool pngHeaderSize(const std::string& path, std::uint64_t& width, std::uint64_t& height) {
  std::FILE* file = FileUtils::openFile(path, "rb");
  if (file == nullptr) {
    return false;
  }
  unsigned char header[24] = {};
  const bool read = std::fread(header, 1, sizeof header, file) == sizeof header;
  std::fclose(file);
  static const unsigned char kSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (!read || std::memcmp(header, kSignature, sizeof kSignature) != 0 ||
      std::memcmp(header + 12, "IHDR", 4) != 0) {
    return false;
  }
  const auto bigEndian = [&](int at) {
    return static_cast<std::uint64_t>(header[at]) << 24 | header[at + 1] << 16 |
           header[at + 2] << 8 | header[at + 3];
  };
  width = bigEndian(16);
  height = bigEndian(20);
  return true;
}

// The EXIF orientation of a frame, where its format carries one (JPEG's APP1, TIFF's first
// directory); 1 when it has none.
int orientationOf(IWICBitmapFrameDecode* frame) {
  ComPtr<IWICMetadataQueryReader> reader;
  if (FAILED(frame->GetMetadataQueryReader(reader.put()))) {
    return 1;
  }
  for (const wchar_t* query : {L"/app1/ifd/{ushort=274}", L"/ifd/{ushort=274}"}) {
    PROPVARIANT value;
    PropVariantInit(&value);
    int orientation = 0;
    if (SUCCEEDED(reader->GetMetadataByName(query, &value)) && value.vt == VT_UI2) {
      orientation = value.uiVal;
    }
    PropVariantClear(&value);
    if (orientation >= 1 && orientation <= 8) {
      return orientation;
    }
  }
  return 1;
}

// Reads `source` as BGRA a band of rows at a time, lays each row over white and hands it on as
// RGB: the full-size picture is never held.
template <typename RowSink>
HRESULT readRows(IWICBitmapSource* source, UINT width, UINT height, RowSink&& sink) {
  constexpr UINT kBand = 64;
  const UINT stride = width * 4;
  std::vector<unsigned char> band(static_cast<std::size_t>(stride) * kBand);
  std::vector<unsigned char> rgb(static_cast<std::size_t>(width) * 3);
  for (UINT top = 0; top < height; top += kBand) {
    const UINT rows = std::min(kBand, height - top);
    const WICRect rect{0, static_cast<INT>(top), static_cast<INT>(width), static_cast<INT>(rows)};
    const HRESULT copied = source->CopyPixels(&rect, stride, stride * rows, band.data());
    if (FAILED(copied)) {
      return copied;
    }
    for (UINT row = 0; row < rows; ++row) {
      flattenBgraOntoWhite(band.data() + static_cast<std::size_t>(stride) * row,
                           static_cast<int>(width), rgb.data());
      sink(rgb.data());
    }
  }
  return S_OK;
}

}  // namespace

bool writeGeneralThumbnail(int size, const std::string& source, const std::string& staging,
                           std::uint64_t maxPixels) {
  const ComScope com;
  if (!com.ready()) {
    QLOG_WARN("cannot read image " << source << ": COM is not available on this thread");
    return false;
  }
  std::uint64_t claimedWidth = 0;
  std::uint64_t claimedHeight = 0;
  if (pngHeaderSize(source, claimedWidth, claimedHeight) &&
      claimedWidth * claimedHeight > maxPixels) {
    QLOG_WARN("image too large to scale: " << source << " (" << claimedWidth << "x" << claimedHeight
                                           << ")");
    return false;
  }
  ComPtr<IWICImagingFactory> factory;
  HRESULT result =
      CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER,
                       IID_IWICImagingFactory, reinterpret_cast<void**>(factory.put()));
  if (FAILED(result)) {
    QLOG_WARN("cannot read image " << source << ": no imaging component (" << hex(result) << ")");
    return false;
  }
  ComPtr<IWICBitmapDecoder> decoder;
  result = factory->CreateDecoderFromFilename(widePath(source).c_str(), nullptr, GENERIC_READ,
                                              WICDecodeMetadataCacheOnDemand, decoder.put());
  ComPtr<IWICBitmapFrameDecode> frame;
  if (SUCCEEDED(result)) {
    result = decoder->GetFrame(0, frame.put());
  }
  UINT width = 0;
  UINT height = 0;
  if (SUCCEEDED(result)) {
    result = frame->GetSize(&width, &height);
  }
  if (FAILED(result) || width == 0 || height == 0) {
    QLOG_WARN("cannot read image " << source << ": not a picture this system decodes ("
                                   << hex(result) << ")");
    return false;
  }
  if (static_cast<std::uint64_t>(width) * height > maxPixels) {
    QLOG_WARN("image too large to scale: " << source << " (" << width << "x" << height << ")");
    return false;
  }

  // The box is fitted to the picture as it is shown; the pixels are read as they are stored.
  const int orientation = orientationOf(frame.get());
  const bool turned = swapsSides(orientation);
  const Dimensions shown = turned ? fitWithin(size, height, width) : fitWithin(size, width, height);
  const int targetWidth = turned ? shown.height : shown.width;
  const int targetHeight = turned ? shown.width : shown.height;
  const bool enlarging =
      static_cast<UINT>(targetWidth) > width || static_cast<UINT>(targetHeight) > height;

  ComPtr<IWICBitmapSource> converted;
  result = WICConvertBitmapSource(GUID_WICPixelFormat32bppBGRA, frame.get(), converted.put());
  Picture picture;
  picture.channels = 3;
  if (SUCCEEDED(result) && enlarging) {
    picture.width = static_cast<int>(width);
    picture.height = static_cast<int>(height);
    picture.pixels.reserve(static_cast<std::size_t>(width) * height * 3);
    result = readRows(converted.get(), width, height, [&](const unsigned char* row) {
      picture.pixels.insert(picture.pixels.end(), row, row + static_cast<std::size_t>(width) * 3);
    });
    picture = enlarge(picture, targetWidth, targetHeight);
  } else if (SUCCEEDED(result)) {
    AreaAverage averager(static_cast<int>(width), static_cast<int>(height), targetWidth,
                         targetHeight, 3);
    result = readRows(converted.get(), width, height,
                      [&](const unsigned char* row) { averager.addRow(row); });
    picture.width = targetWidth;
    picture.height = targetHeight;
    picture.pixels = averager.pixels();
  }
  if (FAILED(result)) {
    QLOG_WARN("cannot read image " << source << ": decoding failed (" << hex(result) << ")");
    return false;
  }
  picture = applyOrientation(std::move(picture), orientation);

  std::vector<unsigned char> encoded;
  std::size_t encodedSize = 0;
  if (!compressJpeg(picture.pixels.data(), picture.width, picture.height, picture.channels, encoded,
                    encodedSize)) {
    QLOG_WARN("cannot scale image " << source << ": JPEG compression failed");
    return false;
  }
  // The staging file is created exclusively, never through a link someone planted at its name.
  if (!FileUtils::writeNewFile(staging, encoded.data(), encodedSize)) {
    QLOG_WARN("cannot write the scaled image " << staging);
    return false;
  }
  return true;
}

}  // namespace quill_base_detail
