#include "detail/Reply.h"

#include "detail/BodyShaper.h"
#include "detail/Faults.h"
#include "detail/Validators.h"

#include <quill_base/FileUtils.h>

#include <json/writer.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <vector>

namespace quill_fileservice::detail {

namespace {

// Bytes read from disk at a time per download.
constexpr std::size_t kReadChunk = 64 * 1024;

// An open stored file that a download reads from, at whatever offsets httplib asks for.
class FileSource {
public:
  static std::shared_ptr<FileSource> open(const std::string& path) {
    std::FILE* file = FileUtils::openFile(path, "rb");
    if (file == nullptr) {
      return nullptr;
    }
    if (std::fseek(file, 0, SEEK_END) != 0) {
      std::fclose(file);
      return nullptr;
    }
    const long end = std::ftell(file);
    if (end < 0 || std::fseek(file, 0, SEEK_SET) != 0) {
      std::fclose(file);
      return nullptr;
    }
    return std::shared_ptr<FileSource>(new FileSource(file, static_cast<std::uint64_t>(end)));
  }
  ~FileSource() { std::fclose(file); }
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  std::uint64_t size() const { return length; }

  bool send(std::size_t offset, std::size_t count, httplib::DataSink& sink) {
    if (offset != position && std::fseek(file, static_cast<long>(offset), SEEK_SET) != 0) {
      return false;
    }
    const std::size_t wanted = std::min(count, buffer.size());
    const std::size_t got = std::fread(buffer.data(), 1, wanted, file);
    position = offset + got;
    if (got == 0) {
      return false;  // the file is shorter than it was when the reply started
    }
    return sink.write(buffer.data(), got);
  }

private:
  FileSource(std::FILE* file, std::uint64_t length)
      : file(file), length(length), buffer(kReadChunk) {}

  std::FILE* file;
  std::uint64_t length;
  std::uint64_t position = 0;
  std::vector<char> buffer;
};

}  // namespace

Reply Reply::json(const Json::Value& value, int status) {
  Reply reply;
  reply.status = status;
  reply.contentType = "application/json";
  reply.body = toJson(value);
  return reply;
}

Reply Reply::text(int status, std::string text) {
  Reply reply;
  reply.status = status;
  reply.contentType = "text/plain";
  reply.body = std::move(text);
  return reply;
}

Reply Reply::file(std::string path, std::string contentType) {
  Reply reply;
  reply.filePath = std::move(path);
  reply.contentType = std::move(contentType);
  return reply;
}

Reply Reply::redirect(const std::string& location) {
  Reply reply = text(302, "redirecting\n");
  reply.headers.emplace_back("Location", location);
  return reply;
}

std::string toJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

std::string contentTypeFor(const std::string& key) {
  const auto dot = key.rfind('.');
  std::string extension = dot == std::string::npos ? std::string() : key.substr(dot + 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  static const std::pair<const char*, const char*> kTypes[] = {
      {"jpg", "image/jpeg"},      {"jpeg", "image/jpeg"},     {"png", "image/png"},
      {"gif", "image/gif"},       {"webp", "image/webp"},     {"bmp", "image/bmp"},
      {"mp4", "video/mp4"},       {"mov", "video/quicktime"}, {"json", "application/json"},
      {"txt", "text/plain"},      {"html", "text/html"},      {"pdf", "application/pdf"},
      {"zip", "application/zip"},
  };
  for (const auto& [name, type] : kTypes) {
    if (extension == name) {
      return type;
    }
  }
  return "application/octet-stream";
}

void render(Reply reply, const Fault* fault, const StopSignal& stop,
            const httplib::Request& request, httplib::Response& response) {
  for (const auto& [name, value] : reply.headers) {
    response.set_header(name, value);
  }
  std::shared_ptr<BodyShaper> shaper;
  if (fault != nullptr && shapesBody(*fault)) {
    shaper = std::make_shared<BodyShaper>(*fault, stop, connectionOf(request));
  }

  if (!reply.filePath.empty()) {
    std::shared_ptr<FileSource> source = FileSource::open(reply.filePath);
    if (source == nullptr) {
      reply = Reply::text(404, "not found\n");
    } else if (source->size() > 0) {
      const FileValidators validators =
          validatorsOf(reply.filePath, source->size(), fault != nullptr && fault->changeEtag);
      response.set_header("ETag", validators.etag);
      response.set_header("Last-Modified", validators.lastModified);
      if ((fault != nullptr && fault->ignoreRange) || !ifRangeHolds(request, validators)) {
        // httplib applies the request's ranges after the handler returned; without them the whole
        // file goes out with 200. The request object is httplib's own, not a constant.
        const_cast<httplib::Request&>(request).ranges.clear();
      }
      // A plain 200 is left to httplib, which answers 206 when the request asked for a range.
      if (reply.status != 200) {
        response.status = reply.status;
      }
      httplib::ContentProvider provider = [source](std::size_t offset, std::size_t length,
                                                   httplib::DataSink& sink) {
        return source->send(offset, length, sink);
      };
      if (shaper) {
        provider = BodyShaper::wrap(std::move(provider), shaper);
      }
      response.set_content_provider(static_cast<std::size_t>(source->size()), reply.contentType,
                                    std::move(provider));
      return;
    } else {
      reply.filePath.clear();
    }
  }

  response.status = reply.status;
  if (reply.body.empty() || (!shaper && !reply.closeConnection)) {
    response.set_content(reply.body, reply.contentType);
    return;
  }
  auto body = std::make_shared<std::string>(std::move(reply.body));
  const bool closeAfter = reply.closeConnection;
  httplib::ContentProvider provider = [body, closeAfter](std::size_t offset, std::size_t length,
                                                         httplib::DataSink& sink) {
    const std::size_t count = std::min(length, body->size() - offset);
    if (!sink.write(body->data() + offset, count)) {
      return false;
    }
    // Refusing the end of the body makes httplib close the connection once the reply is out.
    return !(closeAfter && offset + count >= body->size());
  };
  if (shaper) {
    provider = BodyShaper::wrap(std::move(provider), shaper);
  }
  response.set_content_provider(body->size(), reply.contentType, std::move(provider));
}

}  // namespace quill_fileservice::detail
