#include <quill_network/HttpClient.h>

#include <quill_network/detail/HttpTransport.h>

#include "detail/TransportChoice.h"

#include <atomic>

namespace quill_network_detail {
namespace {

std::string nextTransferId() {
  static std::atomic<unsigned long long> counter{0};
  return "transfer-" + std::to_string(++counter);
}

std::string startTransfer(TransferSpec spec) {
  auto id = nextTransferId();
  activeTransport()->start(id, std::move(spec));
  return id;
}

}  // namespace
}  // namespace quill_network_detail

using quill_network_detail::TransferSpec;

namespace {

TransferSpec makeSpec(TransferSpec::Kind kind, const std::string& url,
                      HttpClient::ProgressFunction progress,
                      HttpClient::CompletionFunction completion) {
  TransferSpec spec;
  spec.kind = kind;
  spec.url = url;
  spec.progress = std::move(progress);
  spec.completion = std::move(completion);
  return spec;
}

}  // namespace

std::string HttpClient::downloadFile(const std::string& url, const std::string& path,
                                     ProgressFunction progress, CompletionFunction completion) {
  return downloadFile(url, path, std::move(progress), std::move(completion), {});
}

std::string HttpClient::downloadFile(const std::string& url, const std::string& path,
                                     ProgressFunction progress, CompletionFunction completion,
                                     HttpDownloadResume resume) {
  auto spec =
      makeSpec(TransferSpec::Kind::Download, url, std::move(progress), std::move(completion));
  spec.path = path;
  spec.resume = std::move(resume);
  return quill_network_detail::startTransfer(std::move(spec));
}

std::string HttpClient::uploadMultipartData(const std::string& url,
                                            const std::vector<HttpPartData>& parts,
                                            ProgressFunction progress,
                                            CompletionFunction completion) {
  auto spec =
      makeSpec(TransferSpec::Kind::MultipartPost, url, std::move(progress), std::move(completion));
  spec.parts = parts;
  return quill_network_detail::startTransfer(std::move(spec));
}

std::string HttpClient::uploadFile(const std::string& url, const std::string& filePath,
                                   ProgressFunction progress, CompletionFunction completion) {
  auto spec =
      makeSpec(TransferSpec::Kind::PutFile, url, std::move(progress), std::move(completion));
  spec.path = filePath;
  return quill_network_detail::startTransfer(std::move(spec));
}

std::string HttpClient::executePost(const std::string& url,
                                    const std::map<std::string, std::string>& form,
                                    RequestSetup setup, CompletionFunction completion) {
  auto spec = makeSpec(TransferSpec::Kind::FormPost, url, nullptr, std::move(completion));
  spec.form = form;
  if (setup) {
    HttpRequest request;
    setup(request);
    spec.headers = request.headers();
  }
  return quill_network_detail::startTransfer(std::move(spec));
}

void HttpClient::cancelRequest(const std::string& id) {
  if (id.empty()) {
    return;
  }
  quill_network_detail::activeTransport()->cancel(id);
}
