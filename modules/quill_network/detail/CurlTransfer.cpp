#include "detail/CurlTransfer.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <random>

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

// The value of the header line "Name: value" when its name is `lowerName` (compared without
// case); false for another header.
bool headerValue(const std::string& line, const char* lowerName, std::string& value) {
  const std::size_t length = std::char_traits<char>::length(lowerName);
  if (line.size() <= length || line[length] != ':') {
    return false;
  }
  for (std::size_t i = 0; i < length; ++i) {
    if (std::tolower(static_cast<unsigned char>(line[i])) != lowerName[i]) {
      return false;
    }
  }
  std::size_t start = length + 1;
  while (start < line.size() && (line[start] == ' ' || line[start] == '\t')) {
    ++start;
  }
  value = line.substr(start);
  return true;
}

// The wait before the `barren`-th attempt in a row that brought no byte: the first wait doubled
// each time, give or take a quarter so that many clients cut off together do not come back
// together.
std::chrono::milliseconds resumeWait(long firstWaitMs, int barren) {
  static thread_local std::minstd_rand random(std::random_device{}());
  std::uniform_real_distribution<double> jitter(0.75, 1.25);
  const double base = static_cast<double>(firstWaitMs) * static_cast<double>(1L << (barren - 1));
  return std::chrono::milliseconds(static_cast<long long>(base * jitter(random)));
}

}  // namespace

CurlTransfer::CurlTransfer(std::string id, TransferSpec spec, TransferSettings settings,
                           std::unique_ptr<DownloadFile> file, const std::atomic<bool>& quiet)
    : transferId(std::move(id)),
      spec(std::move(spec)),
      settings(std::move(settings)),
      quiet(quiet),
      download(std::move(file)),
      throttle(std::chrono::milliseconds(kProgressIntervalMs)) {}

std::unique_ptr<DownloadFile> CurlTransfer::openDownloadFile(const TransferSpec& spec) {
  auto file = std::make_unique<DownloadFile>(spec.path, kFileWriteChunk);
  if (spec.resume.validator.empty() || !file->openExisting()) {
    file->open();
  }
  return file;
}

bool CurlTransfer::prepare(CURLSH* share, EasyHandlePool& pool) {
  startedAt = std::chrono::steady_clock::now();
  lastMovement = startedAt;
  timeline = timelineOf(spec);
  easy = pool.take();
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
      if (download->takenUp()) {
        // An earlier download's partial file: the rest of the same version of the file is asked
        // for, as after a cut (see beginBody()).
        validator = spec.resume.validator;
        receivedAny = true;
        resumeFrom = static_cast<curl_off_t>(download->bytesWritten());
        QLOG_INFO("transfer " << transferId << " takes up " << spec.path << " at byte "
                              << resumeFrom);
        if (resumeFrom > 0 && !askForTheRest()) {
          return false;
        }
      } else if (!download->isOpen()) {
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
  return buildHeaderList(headers, std::string()) &&
         (headers.get() == nullptr ||
          setOption(easy.get(), CURLOPT_HTTPHEADER, headers.get(), localError));
}

bool CurlTransfer::buildHeaderList(HeaderList& list, const std::string& extraLine) {
  for (const auto& [name, value] : spec.headers) {
    // A line break would end the header early and let the rest pass as headers of its own.
    if (name.empty() || name.find_first_of(":\r\n") != std::string::npos ||
        value.find_first_of("\r\n") != std::string::npos) {
      localError = "invalid header \"" + name + "\"";
      return false;
    }
    // "Name;" is how libcurl is told to send a header with an empty value.
    const std::string line = value.empty() ? name + ";" : name + ": " + value;
    if (!list.append(line)) {
      localError = "libcurl could not add the header " + name;
      return false;
    }
  }
  if (!extraLine.empty() && !list.append(extraLine)) {
    localError = "libcurl could not add the header " + extraLine;
    return false;
  }
  return true;
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
    if (!transfer->bodyBegun && !transfer->beginBody()) {
      return 0;  // anything short of `bytes` makes libcurl fail the transfer
    }
    const bool endsTheBody =
        transfer->attemptLength >= 0 &&
        transfer->attemptBytes + static_cast<curl_off_t>(bytes) >= transfer->attemptLength;
    if (!transfer->download->write(data, bytes, endsTheBody)) {
      transfer->localError = transfer->download->error();
      transfer->localErrno = transfer->download->systemError();
      return 0;
    }
    transfer->attemptBytes += static_cast<curl_off_t>(bytes);
    transfer->receivedBody += static_cast<std::int64_t>(bytes);
    transfer->receivedAny = true;
    return bytes;
  }
  const std::size_t room = kMaxReplyBody - std::min(kMaxReplyBody, transfer->replyBody.size());
  transfer->replyBody.append(data, std::min(room, bytes));
  return bytes;
}

std::size_t CurlTransfer::onHeader(char* data, std::size_t size, std::size_t count, void* self) {
  auto* transfer = static_cast<CurlTransfer*>(self);
  const std::size_t bytes = size * count;
  transfer->noteHeader(trimLineEnd(data, bytes));
  return bytes;
}

void CurlTransfer::noteHeader(const std::string& line) {
  if (line.size() > 5 && line.compare(0, 5, "HTTP/") == 0) {
    // A new reply (after a redirect or an interim 100): nothing of the last one applies.
    statusLine = line;
    replyEtag.clear();
    replyLastModified.clear();
    replyContentRange.clear();
    return;
  }
  if (!download) {
    return;
  }
  std::string value;
  if (headerValue(line, "etag", value)) {
    replyEtag = value;
  } else if (headerValue(line, "last-modified", value)) {
    replyLastModified = value;
  } else if (headerValue(line, "content-range", value)) {
    replyContentRange = value;
  }
}

bool CurlTransfer::beginBody() {
  bodyBegun = true;
  const long status = responseCode();
  curl_off_t length = -1;
  curl_easy_getinfo(easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  attemptLength = length;
  bool fromTheStart = true;
  if (resumeFrom > 0 && status == 206) {
    ContentRange range;
    if (!parseContentRange(replyContentRange, range) || range.first != resumeFrom) {
      localError = "the server resumed the download with \"Content-Range: " + replyContentRange +
                   "\" where byte " + std::to_string(resumeFrom) + " was asked for";
      return false;
    }
    fromTheStart = false;
    downloadLength = range.complete >= 0 ? range.complete : length >= 0 ? resumeFrom + length : -1;
  } else if (resumeFrom > 0 || download->bytesWritten() > 0) {
    // The whole file again (a 200): the server would not resume, or the file changed since.
    QLOG_INFO("transfer " << transferId << ": the server sends the whole file again (" << statusLine
                          << "); starting over from byte 0");
    if (!download->restart()) {
      localError = download->error();
      localErrno = download->systemError();
      return false;
    }
    resumeFrom = 0;
  }
  if (fromTheStart) {
    beganWithStatus = status;
    downloadLength = length;
    // The version this file is: later attempts ask for the rest of this one only.
    validator = !replyEtag.empty() && replyEtag.rfind("W/", 0) != 0 ? replyEtag : replyLastModified;
    if (spec.resume.onValidator && !quiet.load(std::memory_order_relaxed)) {
      try {
        spec.resume.onValidator(validator, static_cast<std::int64_t>(downloadLength));
      } catch (...) {
        QLOG_ERROR("validator function of " << transferId << " threw");
      }
    }
  } else if (beganWithStatus == 0) {
    // Taking up an earlier download's file: it began with that download's 200.
    beganWithStatus = 200;
  }
  return true;
}

int CurlTransfer::onProgress(void* self, curl_off_t /*downloadTotal*/, curl_off_t downloaded,
                             curl_off_t uploadTotal, curl_off_t uploaded) {
  auto* transfer = static_cast<CurlTransfer*>(self);
  if (transfer->stalled(downloaded + uploaded)) {
    return 1;  // libcurl ends the transfer; finish() reports the stall
  }
  if (transfer->download) {
    // Counted from what reached the file, so redirect and error bodies never show as progress.
    const auto written = static_cast<curl_off_t>(transfer->download->bytesWritten());
    const curl_off_t length = std::max<curl_off_t>(transfer->downloadLength, 0);
    // All of it is here: the report at the end says so. A small file that arrives in one read
    // would otherwise cost its caller two reports of the same bytes, each a hop to another thread.
    if (length == 0 || written < length) {
      transfer->reportProgress(static_cast<double>(written), static_cast<double>(length));
    }
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
  stallTripped = true;
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

bool CurlTransfer::isCutOff(CURLcode result) const {
  switch (result) {
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    // Asking again for the rest meets a server that is not back yet, or a handshake cut short.
    case CURLE_COULDNT_CONNECT:
    case CURLE_SSL_CONNECT_ERROR:
      return localError.empty();
    case CURLE_ABORTED_BY_CALLBACK:
      return stallTripped;
    case CURLE_OK:
      // Content-Length is a promise: a body that ends short of it was cut off.
      return isSuccess(responseCode()) && attemptLength >= 0 && attemptBytes < attemptLength;
    default:
      return false;
  }
}

CurlTransfer::Resume CurlTransfer::resumeAfter(CURLcode result) {
  lastAttemptResult = result;
  recordAttempt();
  Resume resume;
  const long status = responseCode();
  // Only a download that has begun, with a reply of the file or some of its bytes, is resumed: one
  // that never got that far (no connection, a TLS failure, an error status) ends as it always did.
  const bool begun = receivedAny || (isSuccess(status) && resumeCount == 0);
  if (!download || !begun || quiet.load(std::memory_order_relaxed) || !isCutOff(result)) {
    return resume;
  }
  if (status != 0 && !isSuccess(status)) {
    return resume;
  }
  if (attemptBytes > 0) {
    barrenAttempts = 0;
    resume.when = Resume::When::Now;
  } else if (++barrenAttempts <= kMaxResumeWaits) {
    resume.when = Resume::When::Later;
    resume.wait = resumeWait(settings.resumeWaitMs, barrenAttempts);
  } else {
    QLOG_WARN("transfer " << transferId << ": " << barrenAttempts
                          << " attempts in a row brought no byte; giving up");
    return resume;
  }
  QLOG_INFO("transfer " << transferId << " cut off after " << download->bytesWritten() << " bytes ("
                        << describeFailure(result) << "); asking for the rest "
                        << (resume.when == Resume::When::Now
                                ? std::string("now")
                                : "in " + std::to_string(resume.wait.count()) + " ms"));
  return resume;
}

bool CurlTransfer::prepareResume() {
  ++resumeCount;
  attemptRecorded = false;
  resumeFrom = validator.empty() ? 0 : static_cast<curl_off_t>(download->bytesWritten());
  attemptBytes = 0;
  attemptLength = -1;
  bodyBegun = false;
  stallTripped = false;
  localError.clear();
  localErrno = 0;
  errorBuffer[0] = '\0';
  statusLine.clear();
  lastMoved = 0;
  lastMovement = std::chrono::steady_clock::now();
  if (resumeFrom == 0) {
    // No validator to make sure the rest belongs to the same file: the whole of it again.
    return setOption(easy.get(), CURLOPT_RANGE, static_cast<const char*>(nullptr), localError);
  }
  return askForTheRest();
}

bool CurlTransfer::askForTheRest() {
  const std::string range = std::to_string(resumeFrom) + "-";
  resumeHeaders = HeaderList();
  return buildHeaderList(resumeHeaders, "If-Range: " + validator) &&
         setOption(easy.get(), CURLOPT_HTTPHEADER, resumeHeaders.get(), localError) &&
         setOption(easy.get(), CURLOPT_RANGE, range.c_str(), localError);
}

std::shared_ptr<HttpResponse> CurlTransfer::failedToStart() {
  auto response = std::make_shared<HttpResponse>();
  response->outcome = HttpResponse::kFailed;
  response->text = localError.empty() ? "the transfer could not start" : localError;
  response->systemError = localErrno;
  EndFacts facts;
  facts.fileFailed = localErrno != 0;
  facts.localFailure = response->text;
  closeTimeline(*response, facts);
  return response;
}

void CurlTransfer::recordAttempt() {
  if (attemptRecorded || !easy) {
    return;
  }
  attemptRecorded = true;
  if (!firstAttemptTimed) {
    firstAttemptTimed = true;
    readAttemptTimes(easy.get(), timeline);
    return;
  }
  // Later attempts only tell which HTTP version the transfer ended on.
  HttpTimeline later;
  readAttemptTimes(easy.get(), later);
  if (!later.httpVersion.empty()) {
    timeline.httpVersion = later.httpVersion;
  }
}

void CurlTransfer::closeTimeline(HttpResponse& response, EndFacts facts) {
  timeline.status = response.status;
  timeline.resumes = resumeCount;
  if (download) {
    timeline.bytes = receivedBody;
  } else if (easy) {
    curl_off_t sent = 0;
    curl_off_t received = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_SIZE_UPLOAD_T, &sent);
    curl_easy_getinfo(easy.get(), CURLINFO_SIZE_DOWNLOAD_T, &received);
    timeline.bytes = static_cast<std::int64_t>(sent + received);
  }
  const auto elapsed = std::chrono::steady_clock::now() - startedAt;
  timeline.endMs = std::chrono::duration<double, std::milli>(elapsed).count();
  timeline.bytesPerSecond =
      timeline.endMs > 0 ? static_cast<double>(timeline.bytes) * 1000.0 / timeline.endMs : 0;
  if (response.outcome != HttpResponse::kCompleted) {
    facts.status = response.status;
    if (easy) {
      curl_easy_getinfo(easy.get(), CURLINFO_OS_ERRNO, &facts.osErrno);
    }
    timeline.cause = causeInWords(facts);
  }
  response.timeline = timeline;
  QLOG_INFO(timelineLine(transferId, timeline));
}

std::shared_ptr<HttpResponse> CurlTransfer::finish(CURLcode result) {
  auto response = std::make_shared<HttpResponse>();
  const long status = responseCode();
  // An interim reply (100 Continue) is not the status of the transfer. A resumed download (or one
  // that took up an earlier download's file) reports the status of the reply its file began with:
  // the 206s of its later attempts (or their lack of any reply) are how the file was fetched, not
  // what it is.
  response->status = status >= 200 ? static_cast<int>(status) : 0;
  if (beganWithStatus != 0 && (status == 206 || (status < 200 && resumeCount > 0))) {
    response->status = static_cast<int>(beganWithStatus);
  }
  response->outcome = HttpResponse::kFailed;
  const bool shortBody = result == CURLE_OK && download && localError.empty() && isCutOff(result);
  if (shortBody) {
    response->text = "the reply ended after " + std::to_string(attemptBytes) + " of its " +
                     std::to_string(attemptLength) + " bytes";
  } else if (result != CURLE_OK || !localError.empty()) {
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
  recordAttempt();
  EndFacts facts;
  facts.result = result;
  facts.stalledSeconds = stallTripped ? settings.stallSeconds : 0;
  facts.fileFailed =
      localErrno != 0 || unreadableFile() != nullptr || (download && !download->error().empty());
  facts.localFailure = stallTripped ? std::string() : localError;
  facts.shortBody = shortBody;
  closeTimeline(*response, facts);
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
  recordAttempt();
  EndFacts facts;
  facts.cancelled = true;
  closeTimeline(*response, facts);
  return response;
}

}  // namespace quill_network_detail
