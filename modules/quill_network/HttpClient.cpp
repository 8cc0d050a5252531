#include <quill_network/HttpClient.h>

#include <quill_network/detail/HttpTransport.h>

#include "detail/CurlTransport.h"

#include <atomic>
#include <mutex>

namespace quill_network_detail {
namespace {

std::mutex transportMutex;
std::shared_ptr<HttpTransport> installedTransport;

std::shared_ptr<HttpTransport> currentTransport() {
  std::lock_guard<std::mutex> lock(transportMutex);
  if (installedTransport) {
    return installedTransport;
  }
  return curlTransport();
}

std::string nextTransferId() {
  static std::atomic<unsigned long long> counter{0};
  return "transfer-" + std::to_string(++counter);
}

std::string startTransfer(TransferSpec spec) {
  auto id = nextTransferId();
  currentTransport()->start(id, std::move(spec));
  return id;
}

}  // namespace

std::shared_ptr<HttpTransport> installTransport(std::shared_ptr<HttpTransport> transport) {
  std::lock_guard<std::mutex> lock(transportMutex);
  auto previous = std::move(installedTransport);
  installedTransport = std::move(transport);
  return previous;
}

}  // namespace quill_network_detail

using quill_network_detail::TransferSpec;

std::string HttpClient::downloadFile(const std::string& url, const std::string& path,
                                     ProgressFunction progress, CompletionFunction completion) {
  TransferSpec spec;
  spec.kind = TransferSpec::Kind::Download;
  spec.url = url;
  spec.path = path;
  spec.progress = std::move(progress);
  spec.completion = std::move(completion);
  return quill_network_detail::startTransfer(std::move(spec));
}

std::string HttpClient::uploadMultipartData(const std::string& url,
                                            const std::vector<HttpPartData>& parts,
                                            ProgressFunction progress,
                                            CompletionFunction completion) {
  TransferSpec spec;
  spec.kind = TransferSpec::Kind::MultipartPost;
  spec.url = url;
  spec.parts = parts;
  spec.progress = std::move(progress);
  spec.completion = std::move(completion);
  return quill_network_detail::startTransfer(std::move(spec));
}

std::string HttpClient::uploadFile(const std::string& url, const std::string& filePath,
                                   ProgressFunction progress, CompletionFunction completion) {
  TransferSpec spec;
  spec.kind = TransferSpec::Kind::PutFile;
  spec.url = url;
  spec.path = filePath;
  spec.progress = std::move(progress);
  spec.completion = std::move(completion);
  return quill_network_detail::startTransfer(std::move(spec));
}

std::string HttpClient::executePost(const std::string& url,
                                    const std::map<std::string, std::string>& form,
                                    RequestSetup setup, CompletionFunction completion) {
  TransferSpec spec;
  spec.kind = TransferSpec::Kind::FormPost;
  spec.url = url;
  spec.form = form;
  if (setup) {
    HttpRequest request;
    setup(request);
    spec.headers = request.headers();
  }
  spec.completion = std::move(completion);
  return quill_network_detail::startTransfer(std::move(spec));
}

void HttpClient::cancelRequest(const std::string& id) {
  if (id.empty()) {
    return;
  }
  quill_network_detail::currentTransport()->cancel(id);
}
