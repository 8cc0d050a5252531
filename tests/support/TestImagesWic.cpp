// PNG, GIF and BMP for the tests on Windows, written with the Windows Imaging Component's own
// encoders: the pictures the library meets there come from the same system.
#include "TestImages.h"

#include <gtest/gtest.h>

#include <cstdio>

#include <windows.h>

#include <objbase.h>
#include <wincodec.h>

namespace quill_test {
namespace {

template <typename Interface>
class Com {
public:
  Com() = default;
  Com(const Com&) = delete;
  Com& operator=(const Com&) = delete;
  ~Com() {
    if (pointer != nullptr) {
      pointer->Release();
    }
  }
  Interface* operator->() const { return pointer; }
  Interface* get() const { return pointer; }
  Interface** put() { return &pointer; }

private:
  Interface* pointer = nullptr;
};

std::string hex(HRESULT result) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(result));
  return text;
}

// The picture in the pixel layout handed to the encoder: BGRA for PNG (alpha kept), BGR for BMP,
// 8-bit indices into a 6x7x6 colour cube for GIF.
struct Prepared {
  WICPixelFormatGUID format;
  UINT stride = 0;
  std::vector<unsigned char> bytes;
};

unsigned char channel(const TestPicture& picture, int x, int y, int c) {
  const unsigned char* pixel = picture.at(x, y);
  return picture.channels < 3 ? pixel[0] : pixel[c];
}

Prepared prepare(const TestPicture& picture, ImageFormat format) {
  Prepared prepared;
  const int bytesPerPixel = format == ImageFormat::kPng ? 4 : format == ImageFormat::kBmp ? 3 : 1;
  prepared.format = format == ImageFormat::kPng   ? GUID_WICPixelFormat32bppBGRA
                    : format == ImageFormat::kBmp ? GUID_WICPixelFormat24bppBGR
                                                  : GUID_WICPixelFormat8bppIndexed;
  prepared.stride = static_cast<UINT>((picture.width * bytesPerPixel + 3) / 4 * 4);
  prepared.bytes.assign(static_cast<std::size_t>(prepared.stride) * picture.height, 0);
  for (int y = 0; y < picture.height; ++y) {
    unsigned char* row = prepared.bytes.data() + static_cast<std::size_t>(y) * prepared.stride;
    for (int x = 0; x < picture.width; ++x) {
      const unsigned char r = channel(picture, x, y, 0);
      const unsigned char g = channel(picture, x, y, 1);
      const unsigned char b = channel(picture, x, y, 2);
      if (format == ImageFormat::kGif) {
        row[x] = static_cast<unsigned char>(((r * 5 + 127) / 255) * 42 + ((g * 6 + 127) / 255) * 6 +
                                            (b * 5 + 127) / 255);
        continue;
      }
      unsigned char* out = row + static_cast<std::size_t>(x) * bytesPerPixel;
      out[0] = b;
      out[1] = g;
      out[2] = r;
      if (bytesPerPixel == 4) {
        out[3] = picture.channels == 4 ? picture.at(x, y)[3] : 255;
      }
    }
  }
  return prepared;
}

// The colour cube of the GIF indices: 6 levels of red, 7 of green, 6 of blue.
std::vector<WICColor> cubePalette() {
  std::vector<WICColor> colours;
  for (int r = 0; r < 6; ++r) {
    for (int g = 0; g < 7; ++g) {
      for (int b = 0; b < 6; ++b) {
        colours.push_back(0xFF000000u | static_cast<WICColor>(r * 255 / 5) << 16 |
                          static_cast<WICColor>(g * 255 / 6) << 8 |
                          static_cast<WICColor>(b * 255 / 5));
      }
    }
  }
  return colours;
}

HRESULT encodeInto(IWICImagingFactory* factory, IStream* stream, const TestPicture& picture,
                   ImageFormat format) {
  const GUID container = format == ImageFormat::kPng   ? GUID_ContainerFormatPng
                         : format == ImageFormat::kBmp ? GUID_ContainerFormatBmp
                                                       : GUID_ContainerFormatGif;
  Com<IWICBitmapEncoder> encoder;
  HRESULT result = factory->CreateEncoder(container, nullptr, encoder.put());
  if (SUCCEEDED(result)) {
    result = encoder->Initialize(stream, WICBitmapEncoderNoCache);
  }
  Com<IWICBitmapFrameEncode> frame;
  if (SUCCEEDED(result)) {
    result = encoder->CreateNewFrame(frame.put(), nullptr);
  }
  if (SUCCEEDED(result)) {
    result = frame->Initialize(nullptr);
  }
  if (SUCCEEDED(result)) {
    result = frame->SetSize(static_cast<UINT>(picture.width), static_cast<UINT>(picture.height));
  }
  Prepared prepared = prepare(picture, format);
  WICPixelFormatGUID accepted = prepared.format;
  if (SUCCEEDED(result)) {
    result = frame->SetPixelFormat(&accepted);
  }
  if (SUCCEEDED(result) && !IsEqualGUID(accepted, prepared.format)) {
    return E_NOTIMPL;  // the encoder would convert: not the picture asked for
  }
  Com<IWICPalette> palette;
  if (SUCCEEDED(result) && format == ImageFormat::kGif) {
    std::vector<WICColor> colours = cubePalette();
    result = factory->CreatePalette(palette.put());
    if (SUCCEEDED(result)) {
      result = palette->InitializeCustom(colours.data(), static_cast<UINT>(colours.size()));
    }
    if (SUCCEEDED(result)) {
      result = frame->SetPalette(palette.get());
    }
  }
  if (SUCCEEDED(result)) {
    result = frame->WritePixels(static_cast<UINT>(picture.height), prepared.stride,
                                static_cast<UINT>(prepared.bytes.size()), prepared.bytes.data());
  }
  if (SUCCEEDED(result)) {
    result = frame->Commit();
  }
  if (SUCCEEDED(result)) {
    result = encoder->Commit();
  }
  return result;
}

// The stream's whole content.
std::string contentOf(IStream* stream) {
  STATSTG stat{};
  if (FAILED(stream->Stat(&stat, STATFLAG_NONAME))) {
    return {};
  }
  std::string bytes(static_cast<std::size_t>(stat.cbSize.QuadPart), '\0');
  LARGE_INTEGER start{};
  ULONG read = 0;
  if (FAILED(stream->Seek(start, STREAM_SEEK_SET, nullptr)) ||
      FAILED(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read))) {
    return {};
  }
  bytes.resize(read);
  return bytes;
}

}  // namespace

bool canEncode(ImageFormat format) {
  return format != ImageFormat::kWebp;
}

std::string encodeImage(const TestPicture& picture, ImageFormat format) {
  if (format == ImageFormat::kJpeg) {
    return encodeJpeg(picture);
  }
  if (format == ImageFormat::kWebp) {
    ADD_FAILURE() << "no WebP encoder for the tests on Windows";
    return {};
  }
  const HRESULT initialised = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  std::string bytes;
  HRESULT result = S_OK;
  {
    Com<IWICImagingFactory> factory;
    result = CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER,
                              IID_IWICImagingFactory, reinterpret_cast<void**>(factory.put()));
    Com<IStream> stream;
    if (SUCCEEDED(result)) {
      result = CreateStreamOnHGlobal(nullptr, TRUE, stream.put());
    }
    if (SUCCEEDED(result)) {
      result = encodeInto(factory.get(), stream.get(), picture, format);
    }
    if (SUCCEEDED(result)) {
      bytes = contentOf(stream.get());
    }
  }
  if (SUCCEEDED(initialised)) {
    CoUninitialize();
  }
  if (FAILED(result) || bytes.empty()) {
    ADD_FAILURE() << "the imaging component cannot encode format " << static_cast<int>(format)
                  << " (" << hex(result) << ")";
    return {};
  }
  return bytes;
}

}  // namespace quill_test
