#include <quill_fileservice/FileService.h>

#include "detail/Certificates.h"
#include "detail/Connections.h"
#include "detail/Dispatch.h"
#include "detail/HttpLib.h"
#include "detail/Routes.h"
#include "detail/ServiceContext.h"
#include "detail/WorkerPool.h"

#include <quill_base/Logger.h>
#include <quill_base/TextUtils.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

namespace quill_fileservice {

namespace {

// Connections stay open between requests for this long, and for this many requests.
constexpr time_t kKeepAliveSeconds = 5;
constexpr std::size_t kKeepAliveRequests = 1000;
// A client that sends or takes nothing for this long is dropped.
constexpr time_t kReadTimeoutSeconds = 30;
constexpr time_t kWriteTimeoutSeconds = 30;
constexpr auto kStartTimeout = std::chrono::seconds(10);

std::string makeTemporaryDataDirectory() {
  const auto path =
      std::filesystem::temp_directory_path() / ("quill-fileservice-" + TextUtils::UUID_String());
  return path.u8string();
}

}  // namespace

struct FileService::Impl {
  explicit Impl(Options givenOptions)
      : options(std::move(givenOptions)),
        ownsDataDirectory(options.dataDirectory.empty()),
        dataDirectory(ownsDataDirectory ? makeTemporaryDataDirectory() : options.dataDirectory),
        context(dataDirectory, options.signingSecret, options.signatureLifetimeSeconds,
                options.tls) {}

  ~Impl() {
    stop();
    if (ownsDataDirectory) {
      std::error_code ec;
      std::filesystem::remove_all(std::filesystem::u8path(dataDirectory), ec);
    }
  }

  bool start();
  void stop();
  bool fail(const std::string& message) {
    error = message;
    QLOG_ERROR("file service: " << message);
    return false;
  }
  std::unique_ptr<httplib::Server> makeServer();
  void configure(httplib::Server& server);

  const Options options;
  const bool ownsDataDirectory;
  const std::string dataDirectory;
  detail::ServiceContext context;

  mutable std::mutex lifecycle;  // start() and stop()
  std::unique_ptr<httplib::Server> server;
  std::thread listener;
  std::atomic<bool> listenerExited{false};
  std::atomic<int> listeningSocket{-1};
  std::atomic<int> boundPort{0};
  bool running = false;
  std::string error;
  std::string caPath;
};

std::unique_ptr<httplib::Server> FileService::Impl::makeServer() {
  if (!options.tls) {
    return std::make_unique<httplib::Server>();
  }
  std::unique_ptr<httplib::SSLServer> tlsServer;
  if (!options.certFile.empty() || !options.keyFile.empty()) {
    if (options.certFile.empty() || options.keyFile.empty()) {
      fail("a certificate file needs its key file and the other way round");
      return nullptr;
    }
    tlsServer =
        std::make_unique<httplib::SSLServer>(options.certFile.c_str(), options.keyFile.c_str());
  } else {
    detail::TlsIdentity identity;
    std::string reason;
    if (!detail::makeTlsIdentity(identity, reason)) {
      fail(reason);
      return nullptr;
    }
    const std::string caFile = options.caOut.empty()
                                   ? (std::filesystem::u8path(dataDirectory) / "ca.pem").u8string()
                                   : options.caOut;
    if (!detail::writeFileAtomically(caFile, identity.caPem, reason)) {
      fail(reason);
      return nullptr;
    }
    caPath = caFile;
    // The server's SSL context takes its own references to the certificate and the key.
    tlsServer =
        std::make_unique<httplib::SSLServer>(identity.certificate.get(), identity.key.get());
  }
  if (!tlsServer->is_valid()) {
    fail("cannot set up TLS with the certificate and key");
    return nullptr;
  }
  return tlsServer;
}

void FileService::Impl::configure(httplib::Server& http) {
  const std::size_t threads = static_cast<std::size_t>(std::max(1, options.workerThreads));
  http.new_task_queue = [threads] { return new detail::WorkerPool(threads); };
  http.set_keep_alive_max_count(kKeepAliveRequests);
  http.set_keep_alive_timeout(kKeepAliveSeconds);
  http.set_read_timeout(kReadTimeoutSeconds, 0);
  http.set_write_timeout(kWriteTimeoutSeconds, 0);
  http.set_socket_options([this](socket_t socket) {
    detail::listeningSocketOptions(socket);
    listeningSocket = socket;
  });
  http.set_pre_routing_handler([this](const httplib::Request&, httplib::Response&) {
    ++context.requests;
    return httplib::Server::HandlerResponse::Unhandled;
  });
  http.set_exception_handler(
      [](const httplib::Request& request, httplib::Response& response, std::exception_ptr thrown) {
        std::string what = "unknown exception";
        try {
          if (thrown) {
            std::rethrow_exception(thrown);
          }
        } catch (const std::exception& e) {
          what = e.what();
        } catch (...) {
        }
        QLOG_ERROR("file service: " << request.method << " " << request.path << ": " << what);
        response.status = 500;
        response.set_content("internal error\n", "text/plain");
      });
  http.set_logger([](const httplib::Request& request, const httplib::Response& response) {
    QLOG_DEBUG(request.method << " " << request.path << " -> " << response.status);
  });
  detail::addUploadRoutes(http, context);
  detail::addSignatureRoutes(http, context);
  detail::addObjectRoutes(http, context);
  detail::addDownloadRoutes(http, context);
  detail::addControlRoutes(http, context);
  detail::addFallbackRoutes(http);
}

bool FileService::Impl::start() {
  std::lock_guard<std::mutex> lock(lifecycle);
  if (running) {
    return true;
  }
  error.clear();
  std::string reason;
  if (!context.storage.prepare(reason)) {
    return fail(reason);
  }
  server = makeServer();
  if (!server) {
    return false;
  }
  configure(*server);

  listeningSocket = -1;
  int port = options.port;
  if (port == 0) {
    port = server->bind_to_any_port(options.bindAddress);
  } else if (!server->bind_to_port(options.bindAddress, port)) {
    port = -1;
  }
  if (port <= 0) {
    server.reset();
    return fail("cannot listen on " + options.bindAddress + ":" + std::to_string(options.port));
  }
  if (listeningSocket >= 0) {
    detail::widenBacklog(listeningSocket);
  }
  boundPort = port;
  context.fallbackHost = "127.0.0.1:" + std::to_string(port);
  context.stop.reset();

  listenerExited = false;
  listener = std::thread([this] {
    server->listen_after_bind();
    listenerExited = true;
  });
  // httplib's stop() does nothing until the accept loop runs: wait for it, so that a stop() right
  // after start() always takes effect. The socket already listens, so this is short.
  const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  while (!server->is_running() && !listenerExited && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!server->is_running()) {
    server->stop();
    listener.join();
    server.reset();
    boundPort = 0;
    return fail("the server did not start");
  }
  running = true;
  QLOG_DEBUG("file service listening on " << (options.tls ? "https" : "http") << "://"
                                          << options.bindAddress << ":" << port << ", data in "
                                          << dataDirectory);
  return true;
}

void FileService::Impl::stop() {
  std::lock_guard<std::mutex> lock(lifecycle);
  if (!running) {
    return;
  }
  // Wake handlers that wait on purpose, close the listening socket, then wake the workers blocked
  // on their connections (idle keep-alive, slow clients) so that the pool can be joined at once.
  context.stop.raise();
  server->stop();
  detail::shutDownConnections(boundPort);
  listener.join();
  server.reset();
  running = false;
}

FileService::FileService(Options options) : impl(std::make_unique<Impl>(std::move(options))) {}

FileService::~FileService() = default;

bool FileService::start() {
  return impl->start();
}

void FileService::stop() {
  impl->stop();
}

const std::string& FileService::lastError() const {
  return impl->error;
}

int FileService::port() const {
  return impl->boundPort;
}

bool FileService::tls() const {
  return impl->options.tls;
}

std::string FileService::hostPort() const {
  std::string host = impl->options.bindAddress;
  if (host.empty() || host == "0.0.0.0" || host == "::") {
    host = "127.0.0.1";
  } else if (host.find(':') != std::string::npos) {
    host = "[" + host + "]";
  }
  return host + ":" + std::to_string(port());
}

std::string FileService::baseUrl() const {
  return std::string(tls() ? "https" : "http") + "://" + hostPort();
}

std::string FileService::caCertificatePath() const {
  std::lock_guard<std::mutex> lock(impl->lifecycle);
  return impl->caPath;
}

std::string FileService::dataDirectory() const {
  return impl->dataDirectory;
}

void FileService::addFault(const Fault& fault) {
  impl->context.faults.add(fault);
}

void FileService::clearFaults() {
  impl->context.faults.clear();
}

std::string FileService::addFile(const std::string& key, const std::string& localPath) {
  if (!detail::isValidKey(key)) {
    return {};
  }
  std::string reason;
  if (!impl->context.storage.prepare(reason)) {
    return {};
  }
  std::ifstream in(std::filesystem::u8path(localPath), std::ios::binary);
  if (!in) {
    return {};
  }
  detail::StagedFile staged(impl->context.storage, detail::Area::Files);
  if (!staged.open()) {
    return {};
  }
  std::vector<char> buffer(256 * 1024);
  while (in) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    const auto got = static_cast<std::size_t>(in.gcount());
    if (got > 0 && !staged.write(buffer.data(), got)) {
      return {};
    }
  }
  if (in.bad() || !staged.commit(key)) {
    return {};
  }
  return detail::Storage::urlPath(detail::Area::Files, key);
}

std::string FileService::storedFile(const std::string& urlPath) const {
  detail::Area area = detail::Area::Files;
  std::string key;
  if (!detail::Storage::parseUrlPath(urlPath, area, key)) {
    return {};
  }
  return impl->context.storage.existingFile(area, key);
}

std::uint64_t FileService::requestCount() const {
  return impl->context.requests.load();
}

}  // namespace quill_fileservice
