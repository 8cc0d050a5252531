#pragma once

// A plain HTTP server on loopback that records every request it gets as it came over the wire
// (method, path, headers, body, multipart parts in order), for checking exactly what the engine
// sends. Replies: "ok" to /echo (POST and PUT), 1.5 MiB to POST /big-reply, 418 to POST /teapot,
// 204 to POST /no-content, the request's User-Agent to GET /user-agent, and "proxied" to a POST
// it gets as a proxy (with the whole URL as its target).

#include "TestSupport.h"

#include <httplib.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quill_test {

class CaptureServer {
public:
  struct Part {
    std::string name;
    std::string filename;
    std::string contentType;
    std::string content;
  };
  struct Request {
    std::string method;
    std::string path;
    httplib::Headers headers;
    std::string body;
    std::vector<Part> parts;

    std::size_t headerCount(const std::string& name) const { return headers.count(name); }
    std::string header(const std::string& name) const {
      const auto found = headers.find(name);
      return found == headers.end() ? std::string() : found->second;
    }
  };

  static constexpr std::size_t kBigReplySize = 1536 * 1024;

  CaptureServer() {
    server.Post("/echo", [this](const auto& request, auto& response, const auto& reader) {
      record(request, reader);
      response.set_content("ok", "text/plain");
    });
    server.Put("/echo", [this](const auto& request, auto& response, const auto& reader) {
      record(request, reader);
      response.set_content("ok", "text/plain");
    });
    server.Post("/big-reply", [this](const auto& request, auto& response, const auto& reader) {
      record(request, reader);
      response.set_content(std::string(kBigReplySize, 'r'), "text/plain");
    });
    server.Post("/teapot", [this](const auto& request, auto& response, const auto& reader) {
      record(request, reader);
      response.status = 418;
      response.set_content("short and stout", "text/plain");
    });
    server.Post("/no-content", [this](const auto& request, auto& response, const auto& reader) {
      record(request, reader);
      response.status = 204;
    });
    // A request sent through a proxy names the whole URL ("POST http://host/path HTTP/1.1").
    server.Post("http://.*", [this](const auto& request, auto& response, const auto& reader) {
      record(request, reader);
      response.set_content("proxied", "text/plain");
    });
    server.Get("/user-agent", [](const httplib::Request& request, httplib::Response& response) {
      response.set_content(request.get_header_value("User-Agent"), "text/plain");
    });
    // One request per connection: a kept-alive connection would hold stop() for the keep-alive
    // timeout, and nothing here depends on reuse.
    server.set_keep_alive_max_count(1);
    port = server.bind_to_any_port("127.0.0.1");
    if (port > 0) {
      thread = std::thread([this] { server.listen_after_bind(); });
      // stop() only takes effect once the loop runs; wait for it so the destructor can end it.
      running = eventually([this] { return server.is_running(); });
    }
  }

  ~CaptureServer() {
    server.stop();
    if (thread.joinable()) {
      thread.join();
    }
  }
  CaptureServer(const CaptureServer&) = delete;
  CaptureServer& operator=(const CaptureServer&) = delete;

  bool ok() const { return port > 0 && running; }
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port) + path;
  }

  std::vector<Request> requests() const {
    std::lock_guard<std::mutex> lock(mutex);
    return recorded;
  }

private:
  void record(const httplib::Request& request, const httplib::ContentReader& reader) {
    Request captured;
    captured.method = request.method;
    captured.path = request.path;
    captured.headers = request.headers;
    if (request.is_multipart_form_data()) {
      reader(
          [&](const httplib::MultipartFormData& header) {
            captured.parts.push_back({header.name, header.filename, header.content_type, ""});
            return true;
          },
          [&](const char* data, std::size_t size) {
            captured.parts.back().content.append(data, size);
            return true;
          });
    } else {
      reader([&](const char* data, std::size_t size) {
        captured.body.append(data, size);
        return true;
      });
    }
    std::lock_guard<std::mutex> lock(mutex);
    recorded.push_back(std::move(captured));
  }

  httplib::Server server;
  int port = -1;
  bool running = false;
  std::thread thread;
  mutable std::mutex mutex;
  std::vector<Request> recorded;
};

}  // namespace quill_test
