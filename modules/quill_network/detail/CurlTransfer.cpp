#include "detail/CurlTransfer.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>

#include <algorithm>
#include <exception>

namespace quill_network_detail {
namespace {

bool isSuccess(long status) {
  return status >= 200 && status < 300;
}

// Every option set here is one libcurl supports; a failure means no memory, or an option this build
// of libcurl lacks, and the transfer cannot be made as promised.
template <typename Value>
bool setOption(CURL* easy, CURLoption option, Value value, std::string& error) {
  const CURLcode result = curl_easy_setopt(easy, option, value);
  if (result != CURLE_OK) {
    error = std::string("setting up the transfer failed: ") + curl_easy_strerror(result);
    return false;
  }
  return true;
}

std::string trimLineEnd(const char* data, std::size_t size) {
  std::string line(data, size);
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n' || line.back() == ' ')) {
    line.pop_back();
  }
  return line;
}

}  // namespace

CurlTransfer::CurlTransfer(std::string id, TransferSpec spec, TransferSettings settings,
                           const std::atomic<bool>& quiet)
    : transferId(std::move(id)),
      spec(std::move(spec)),
      settings(std::move(settings)),
      quiet(quiet),
      throttle(std::chrono::milliseconds(kProgressIntervalMs)) {}

bool CurlTransfer::prepare(CURLSH* share) {
  lastMovement = std::chrono::steady_clock::now();
  easy.reset(curl_easy_init());
  if (!easy) {
    localError = "libcurl could not create a transfer";
    return false;
  }
  return setCommonOptions(share) && setKindOptions() && setHeaders();
}

bool CurlTransfer::setCommonOptions(CURLSH* share) {
  CURL* h = easy.get();
  std::string& e = localError;
  bool ok =
      setOption(h, CURLOPT_URL, spec.url.c_str(), e) &&
      setOption(h, CURLOPT_PRIVATE, static_cast<void*>(this), e) &&
      setOption(h, CURLOPT_ERRORBUFFER, errorBuffer, e) &&
      // Signals are process-wide; the threaded resolver needs none for its timeouts.
      setOption(h, CURLOPT_NOSIGNAL, 1L, e) &&
      setOption(h, CURLOPT_PROTOCOLS_STR, "http,https", e) &&
      setOption(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https", e) &&
      setOption(h, CURLOPT_FOLLOWLOCATION, 1L, e) &&
      setOption(h, CURLOPT_MAXREDIRS, kMaxRedirects, e) &&
      setOption(h, CURLOPT_SSL_VERIFYPEER, 1L, e) && setOption(h, CURLOPT_SSL_VERIFYHOST, 2L, e) &&
      setOption(h, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds, e) &&
      setOption(h, CURLOPT_USERAGENT, userAgent(), e) && setOption(h, CURLOPT_SHARE, share, e) &&
      setOption(h, CURLOPT_HEADERFUNCTION, &CurlTransfer::onHeader, e) &&
      setOption(h, CURLOPT_HEADERDATA, static_cast<void*>(this), e) &&
      setOption(h, CURLOPT_WRITEFUNCTION, &CurlTransfer::onWrite, e) &&
      setOption(h, CURLOPT_WRITEDATA, static_cast<void*>(this), e) &&
      setOption(h, CURLOPT_XFERINFOFUNCTION, &CurlTransfer::onProgress, e) &&
      setOption(h, CURLOPT_XFERINFODATA, static_cast<void*>(this), e) &&
      setOption(h, CURLOPT_NOPROGRESS, 0L, e);
  if (ok && !settings.caBundle.empty()) {
    ok = setOption(h, CURLOPT_CAINFO, settings.caBundle.c_str(), e);
  }
#if defined(_WIN32)
  // Windows has no CA file: without QUILL_CA_BUNDLE, OpenSSL trusts the Windows certificate store,
  // a company's own root CA included.
  if (ok && settings.caBundle.empty()) {
    ok = setOption(h, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NATIVE_CA), e);
  }
#endif
  if (ok && curl_easy_setopt(h, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS) != CURLE_OK) {
    // A libcurl without HTTP/2 speaks HTTP/1.1, which serves every transfer just as well.
    QLOG_DEBUG("libcurl offers no HTTP/2; transfer " << transferId << " uses HTTP/1.1");
  }
  return ok;
}

bool CurlTransfer::setKindOptions() {
  CURL* h = easy.get();
  std::string& e = localError;
  switch (spec.kind) {
    case TransferSpec::Kind::Download:
      download = std::make_unique<DownloadFile>(spec.path, kFileWriteChunk);
      if (!download->open()) {
        localError = download->error();
        localErrno = download->systemError();
        return false;
      }
      return setOption(h, CURLOPT_BUFFERSIZE, kReceiveBufferBytes, e);
    case TransferSpec::Kind::MultipartPost:
      return buildMultipart() && setOption(h, CURLOPT_MIMEPOST, mime.get(), e) &&
             setOption(h, CURLOPT_UPLOAD_BUFFERSIZE, kSendBufferBytes, e);
    case TransferSpec::Kind::PutFile:
      upload = std::make_unique<UploadFile>(spec.path);
      if (!upload->open()) {
        localError = upload->error();
        localErrno = upload->systemError();
        return false;
      }
      uploadLength = static_cast<curl_off_t>(upload->size());
      return setOption(h, CURLOPT_UPLOAD, 1L, e) &&
             setOption(h, CURLOPT_READFUNCTION, &UploadFile::onRead, e) &&
             setOption(h, CURLOPT_READDATA, static_cast<void*>(upload.get()), e) &&
             setOption(h, CURLOPT_SEEKFUNCTION, &UploadFile::onSeek, e) &&
             setOption(h, CURLOPT_SEEKDATA, static_cast<void*>(upload.get()), e) &&
             setOption(h, CURLOPT_INFILESIZE_LARGE, uploadLength, e) &&
             setOption(h, CURLOPT_UPLOAD_BUFFERSIZE, kSendBufferBytes, e);
    case TransferSpec::Kind::FormPost:
      formBody = encodeForm(spec.form);
      // libcurl sends the body from formBody, which lives as long as the easy handle.
      return setOption(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(formBody.size()),
                       e) &&
             setOption(h, CURLOPT_POSTFIELDS, formBody.c_str(), e);
  }
  localError = "unknown kind of transfer";
  return false;
}

bool CurlTransfer::buildMultipart() {
  mime.reset(curl_mime_init(easy.get()));
  if (!mime) {
    localError = "libcurl could not create a multipart body";
    return false;
  }
  for (const HttpPartData& part : spec.parts) {
    curl_mimepart* field = curl_mime_addpart(mime.get());
    if (field == nullptr || curl_mime_name(field, part.name.c_str()) != CURLE_OK) {
      localError = "libcurl could not add the part " + part.name;
      return false;
    }
    if (!part.isFile) {
      if (curl_mime_data(field, part.value.data(), part.value.size()) != CURLE_OK) {
        localError = "libcurl could not add the part " + part.name;
        return false;
      }
      continue;
    }
    // The file is opened here and read by our own functions as libcurl sends the part (not by
    // libcurl's file reader: that one opens narrow paths, and its read errors say nothing of the
    // file). The type is set explicitly because libcurl would otherwise guess one from the name.
    auto file = std::make_unique<UploadFile>(part.value);
    if (!file->open()) {
      localError = file->error();
      localErrno = file->systemError();
      return false;
    }
    const std::string type =
        part.contentType.empty() ? std::string("application/octet-stream") : part.contentType;
    if (curl_mime_data_cb(field, static_cast<curl_off_t>(file->size()), &UploadFile::onRead,
                          &UploadFile::onSeek, nullptr, file.get()) != CURLE_OK ||
        curl_mime_filename(field, FileUtils::fileName(part.value).c_str()) != CURLE_OK ||
        curl_mime_type(field, type.c_str()) != CURLE_OK) {
      localError = "libcurl could not add the part " + part.name;
      return false;
    }
    partFiles.push_back(std::move(file));
  }
  return true;
}

bool CurlTransfer::setHeaders() {
  for (const auto& [name, value] : spec.headers) {
    // A line break would end the header early and let the rest pass as headers of its own.
    if (name.empty() || name.find_first_of(":\r\n") != std::string::npos ||
        value.find_first_of("\r\n") != std::string::npos) {
      localError = "invalid header \"" + name + "\"";
      return false;
    }
    // "Name;" is how libcurl is told to send a header with an empty value.
    const std::string line = value.empty() ? name + ";" : name + ": " + value;
    if (!headers.append(line)) {
      localError = "libcurl could not add the header " + name;
      return false;
    }
  }
  return headers.get() == nullptr ||
         setOption(easy.get(), CURLOPT_HTTPHEADER, headers.get(), localError);
}

long CurlTransfer::responseCode() const {
  long status = 0;
  if (easy) {
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
  }
  return status;
}

std::size_t CurlTransfer::onWrite(char* data, std::size_t size, std::size_t count, void* self) {
  auto* transfer = static_cast<CurlTransfer*>(self);
  const std::size_t bytes = size * count;
  // Bodies of redirects and errors are read to keep the connection usable, and dropped: they are
  // neither the download nor the reply the caller asked for.
  if (!isSuccess(transfer->responseCode())) {
    return bytes;
  }
  if (transfer->download) {
    if (transfer->downloadLength < 0 && transfer->download->bytesWritten() == 0) {
      curl_off_t length = -1;
      curl_easy_getinfo(transfer->easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
      transfer->downloadLength = length;
    }
    if (!transfer->download->write(data, bytes)) {
      transfer->localError = transfer->download->error();
      transfer->localErrno = transfer->download->systemError();
      return 0;  // anything short of `bytes` makes libcurl fail the transfer
    }
    return bytes;
  }
  const std::size_t room = kMaxReplyBody - std::min(kMaxReplyBody, transfer->replyBody.size());
  transfer->replyBody.append(data, std::min(room, bytes));
  return bytes;
}

std::size_t CurlTransfer::onHeader(char* data, std::size_t size, std::size_t count, void* self) {
  auto* transfer = static_cast<CurlTransfer*>(self);
  const std::size_t bytes = size * count;
  if (bytes > 5 && std::equal(data, data + 5, "HTTP/")) {
    transfer->statusLine = trimLineEnd(data, bytes);
  }
  return bytes;
}

int CurlTransfer::onProgress(void* self, curl_off_t /*downloadTotal*/, curl_off_t downloaded,
                             curl_off_t uploadTotal, curl_off_t uploaded) {
  auto* transfer = static_cast<CurlTransfer*>(self);
  if (transfer->stalled(downloaded + uploaded)) {
    return 1;  // libcurl ends the transfer; finish() reports the stall
  }
  if (transfer->download) {
    // Counted from what reached the file, so redirect and error bodies never show as progress.
    transfer->reportProgress(
        static_cast<double>(transfer->download->bytesWritten()),
        static_cast<double>(std::max<curl_off_t>(transfer->downloadLength, 0)));
  } else if (transfer->spec.kind != TransferSpec::Kind::FormPost) {
    if (uploadTotal > 0) {
      transfer->uploadLength = uploadTotal;
    }
    transfer->reportProgress(static_cast<double>(uploaded), static_cast<double>(uploadTotal));
  }
  return 0;  // cancelling goes through the engine, never through this return value
}

bool CurlTransfer::stalled(curl_off_t moved) {
  const auto now = std::chrono::steady_clock::now();
  if (moved != lastMoved) {
    lastMoved = moved;
    lastMovement = now;
    return false;
  }
  if (now - lastMovement < std::chrono::seconds(settings.stallSeconds)) {
    return false;
  }
  localError = "the transfer stalled: no byte moved for " + std::to_string(settings.stallSeconds) +
               " seconds";
  return true;
}

void CurlTransfer::reportProgress(double done, double total) {
  if (!spec.progress || quiet.load(std::memory_order_relaxed) ||
      !throttle.admit(done, ProgressThrottle::Clock::now())) {
    return;
  }
  try {
    spec.progress(done, total);
  } catch (const std::exception& error) {
    QLOG_ERROR("progress function of " << transferId << " threw: " << error.what());
  } catch (...) {
    QLOG_ERROR("progress function of " << transferId << " threw");
  }
}

void CurlTransfer::reportFinalProgress() {
  if (!spec.progress || quiet.load(std::memory_order_relaxed) ||
      spec.kind == TransferSpec::Kind::FormPost) {
    return;
  }
  double total = 0;
  if (download) {
    total = static_cast<double>(download->bytesWritten());
  } else {
    curl_off_t sent = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_SIZE_UPLOAD_T, &sent);
    total = static_cast<double>(std::max(sent, uploadLength));
  }
  const double done = throttle.finalDone(total);
  try {
    spec.progress(done, std::max(done, total));
  } catch (const std::exception& error) {
    QLOG_ERROR("progress function of " << transferId << " threw: " << error.what());
  } catch (...) {
    QLOG_ERROR("progress function of " << transferId << " threw");
  }
}

const UploadFile* CurlTransfer::unreadableFile() const {
  if (upload && !upload->error().empty()) {
    return upload.get();
  }
  for (const auto& file : partFiles) {
    if (!file->error().empty()) {
      return file.get();
    }
  }
  return nullptr;
}

std::string CurlTransfer::describeFailure(CURLcode result) const {
  if (!localError.empty()) {
    return localError;
  }
  if (const auto* file = unreadableFile()) {
    return file->error();  // the file being sent could not be read: libcurl says only "aborted"
  }
  if (errorBuffer[0] != '\0') {
    return errorBuffer;
  }
  return curl_easy_strerror(result);
}

std::shared_ptr<HttpResponse> CurlTransfer::failedToStart() const {
  auto response = std::make_shared<HttpResponse>();
  response->outcome = HttpResponse::kFailed;
  response->text = localError.empty() ? "the transfer could not start" : localError;
  response->systemError = localErrno;
  return response;
}

std::shared_ptr<HttpResponse> CurlTransfer::finish(CURLcode result) {
  auto response = std::make_shared<HttpResponse>();
  const long status = responseCode();
  // An interim reply (100 Continue) is not the status of the transfer.
  response->status = status >= 200 ? static_cast<int>(status) : 0;
  response->outcome = HttpResponse::kFailed;
  if (result != CURLE_OK || !localError.empty()) {
    response->text = describeFailure(result);
    const auto* unreadable = unreadableFile();
    response->systemError = !localError.empty() ? localErrno
                            : unreadable        ? unreadable->systemError()
                                                : 0;
  } else if (!isSuccess(status)) {
    response->text = statusLine.empty() ? "HTTP status " + std::to_string(status) : statusLine;
  } else if (download && !download->commit()) {
    response->text = download->error();
    response->systemError = download->systemError();
  } else {
    response->outcome = HttpResponse::kCompleted;
    if (!download) {
      response->text = std::move(replyBody);
    }
    reportFinalProgress();
  }
  if (response->outcome != HttpResponse::kCompleted && download) {
    download->discard();
  }
  long connections = 0;
  curl_easy_getinfo(easy.get(), CURLINFO_NUM_CONNECTS, &connections);
  QLOG_DEBUG(
      "transfer " << transferId << " ended: outcome " << response->outcome << ", status "
                  << response->status << ", new connections " << connections
                  << (response->outcome == HttpResponse::kCompleted ? "" : ": " + response->text));
  return response;
}

std::shared_ptr<HttpResponse> CurlTransfer::cancel() {
  if (download) {
    download->discard();
  }
  auto response = std::make_shared<HttpResponse>();
  response->outcome = HttpResponse::kCancelled;
  const long status = responseCode();
  response->status = status >= 200 ? static_cast<int>(status) : 0;
  response->text = "cancelled";
  return response;
}

}  // namespace quill_network_detail
