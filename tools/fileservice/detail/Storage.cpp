#include "detail/Storage.h"

#include "detail/Forms.h"

#include <quill_base/FileUtils.h>
#include <quill_base/TextUtils.h>

#include <cctype>
#include <filesystem>
#include <system_error>

namespace quill_fileservice::detail {

namespace {

constexpr std::size_t kMaxKeyLength = 255;
constexpr std::size_t kMaxExtensionLength = 16;
constexpr std::size_t kWriteBufferSize = 256 * 1024;

struct AreaPrefix {
  Area area;
  const char* prefix;
};
constexpr AreaPrefix kAreaPrefixes[] = {
    {Area::Files, "/files/"}, {Area::Objects, "/objects/"}, {Area::Vod, "/vod/"}};

// The path part of "scheme://host/path?query", "//host/path" or "/path".
std::string pathPart(const std::string& url) {
  std::string path = url;
  std::string::size_type hostStart = std::string::npos;
  if (TextUtils::hasPrefix(path, "//")) {
    hostStart = 2;
  } else if (const auto scheme = path.find("://"); scheme != std::string::npos) {
    hostStart = scheme + 3;
  }
  if (hostStart != std::string::npos) {
    const auto slash = path.find('/', hostStart);
    path = slash == std::string::npos ? std::string("/") : path.substr(slash);
  }
  const auto end = path.find_first_of("?#");
  if (end != std::string::npos) {
    path.resize(end);
  }
  return path;
}

}  // namespace

const char* areaName(Area area) {
  switch (area) {
    case Area::Files:
      return "files";
    case Area::Objects:
      return "objects";
    case Area::Vod:
      return "vod";
  }
  return "files";
}

bool isValidKey(const std::string& key) {
  if (key.empty() || key.size() > kMaxKeyLength || key.front() == '.') {
    return false;
  }
  if (key.find("..") != std::string::npos) {
    return false;
  }
  for (const char c : key) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f || c == '/' || c == '\\') {
      return false;
    }
  }
  return true;
}

std::string plainExtension(const std::string& fileName) {
  const auto slash = fileName.find_last_of("/\\");
  const std::string name = slash == std::string::npos ? fileName : fileName.substr(slash + 1);
  const auto dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) {
    return {};
  }
  const std::string extension = name.substr(dot + 1);
  if (extension.size() > kMaxExtensionLength) {
    return {};
  }
  for (const char c : extension) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) {
      return {};
    }
  }
  return "." + extension;
}

Storage::Storage(std::string root) : rootDirectory(std::move(root)) {}

bool Storage::prepare(std::string& error) const {
  if (rootDirectory.empty()) {
    error = "no data directory";
    return false;
  }
  for (const Area area : {Area::Files, Area::Objects, Area::Vod}) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::u8path(directory(area)), ec);
    if (!std::filesystem::is_directory(std::filesystem::u8path(directory(area)), ec)) {
      error = "cannot create " + directory(area);
      return false;
    }
  }
  return true;
}

std::string Storage::directory(Area area) const {
  return (std::filesystem::u8path(rootDirectory) / areaName(area)).u8string();
}

std::string Storage::pathOf(Area area, const std::string& key) const {
  if (!isValidKey(key)) {
    return {};
  }
  return (std::filesystem::u8path(directory(area)) / std::filesystem::u8path(key)).u8string();
}

std::string Storage::existingFile(Area area, const std::string& key) const {
  const std::string path = pathOf(area, key);
  std::error_code ec;
  if (path.empty() || !std::filesystem::is_regular_file(std::filesystem::u8path(path), ec)) {
    return {};
  }
  return path;
}

bool Storage::parseUrlPath(const std::string& urlPath, Area& area, std::string& key) {
  const std::string path = pathPart(urlPath);
  for (const auto& entry : kAreaPrefixes) {
    if (TextUtils::hasPrefix(path, entry.prefix)) {
      std::string decoded = percentDecode(path.substr(std::char_traits<char>::length(entry.prefix)),
                                          /*plusIsSpace=*/false);
      if (!isValidKey(decoded)) {
        return false;
      }
      area = entry.area;
      key = std::move(decoded);
      return true;
    }
  }
  return false;
}

std::string Storage::urlPath(Area area, const std::string& key) {
  return std::string("/") + areaName(area) + "/" + percentEncode(key);
}

StagedFile::StagedFile(const Storage& storage, Area area) : storage(storage), area(area) {}

StagedFile::~StagedFile() {
  discard();
}

bool StagedFile::open() {
  discard();
  stagingPath =
      (std::filesystem::u8path(storage.directory(area)) / (".staging-" + TextUtils::UUID_String()))
          .u8string();
  file = FileUtils::openFile(stagingPath, "wb");
  if (file == nullptr) {
    stagingPath.clear();
    return false;
  }
  // Request bodies arrive in small pieces; a larger buffer keeps the number of writes down.
  buffer.resize(kWriteBufferSize);
  std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
  written = 0;
  return true;
}

bool StagedFile::write(const char* data, std::size_t size) {
  if (file == nullptr) {
    return false;
  }
  if (size > 0 && std::fwrite(data, 1, size, file) != size) {
    return false;
  }
  written += size;
  return true;
}

bool StagedFile::commit(const std::string& key) {
  const std::string target = storage.pathOf(area, key);
  if (file == nullptr || target.empty()) {
    return false;
  }
  const bool flushed = std::fflush(file) == 0;
  const bool closed = std::fclose(file) == 0;
  file = nullptr;
  if (!flushed || !closed) {
    discard();
    return false;
  }
  std::error_code ec;
  std::filesystem::rename(std::filesystem::u8path(stagingPath), std::filesystem::u8path(target),
                          ec);
  if (ec) {
    discard();
    return false;
  }
  stagingPath.clear();
  return true;
}

void StagedFile::discard() {
  if (file != nullptr) {
    std::fclose(file);
    file = nullptr;
  }
  if (!stagingPath.empty()) {
    std::error_code ec;
    std::filesystem::remove(std::filesystem::u8path(stagingPath), ec);
    stagingPath.clear();
  }
}

}  // namespace quill_fileservice::detail
