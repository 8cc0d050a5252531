#pragma once

#include <quill_network/detail/HttpTransport.h>

#include "detail/CurlHandles.h"
#include "detail/DownloadFile.h"
#include "detail/EasyHandlePool.h"
#include "detail/ProgressThrottle.h"
#include "detail/Timeline.h"
#include "detail/TransferSettings.h"
#include "detail/UploadFile.h"

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace quill_network_detail {

// One transfer on the engine: the easy handle built from the caller's spec, the files it reads or
// writes, and what its callbacks gather for the response. Lives on the network thread only. Its
// address is the easy handle's CURLINFO_PRIVATE, so the engine finds it from a finished handle.
//
// The owner removes the easy handle from the multi handle before destroying the transfer. A
// transfer destroyed before finish() reported success removes its partial download file.
class CurlTransfer {
public:
  // `quiet` tells that the engine is shutting down: the caller's functions are no longer called.
  // `file`: a download's file as openDownloadFile() made it (null for any other kind).
  CurlTransfer(std::string id, TransferSpec spec, TransferSettings settings,
               std::unique_ptr<DownloadFile> file, const std::atomic<bool>& quiet);
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  // The file a download writes into: an earlier download's partial file taken up when the spec
  // says how, else a new file. Opening may fail; the transfer then fails to start with the reason.
  // Any thread may call this, before the transfer is made.
  static std::unique_ptr<DownloadFile> openDownloadFile(const TransferSpec& spec);

  // Sets up an easy handle from `pool` (sharing TLS sessions through `share`) and opens the files.
  // False when the transfer cannot start; failedToStart() then describes why.
  bool prepare(CURLSH* share, EasyHandlePool& pool);
  std::shared_ptr<HttpResponse> failedToStart();

  // Whether a download goes on after the attempt that just ended with `result`: when its body was
  // cut off (connection reset or closed early, the stall guard, a timeout, a TLS read error) once
  // the download had begun (a 2xx reply to it had come, or bytes of its body), the rest is asked
  // for again at once if this attempt brought new bytes, after a growing wait if it brought none,
  // and never after kMaxResumeWaits waits in a row. Anything else, and any other kind of transfer,
  // ends as it ends without resuming.
  struct Resume {
    enum class When { Never, Now, Later };
    When when = When::Never;
    std::chrono::milliseconds wait{0};
  };
  Resume resumeAfter(CURLcode result);
  // Sets the easy handle up to ask for the rest (Range from the bytes written, If-Range with the
  // first reply's validator); false when it cannot, and the transfer then ends with
  // finish(lastResult()).
  bool prepareResume();
  CURLcode lastResult() const { return lastAttemptResult; }

  // The response for the result libcurl reported; on success the final progress report is made.
  std::shared_ptr<HttpResponse> finish(CURLcode result);
  // The response of a transfer ended by cancelRequest(); the partial download file is removed.
  std::shared_ptr<HttpResponse> cancel();
  // failedToStart(), finish() and cancel() log the transfer's timeline as one INFO line.

  // The completion function, moved out so it can run after the transfer is gone.
  HttpClient::CompletionFunction takeCompletion() { return std::move(spec.completion); }

  const std::string& id() const { return transferId; }
  CURL* handle() const { return easy.get(); }
  // The easy handle, for the pool, once it is out of the multi handle and the transfer has ended.
  EasyHandle releaseHandle() { return std::move(easy); }

private:
  static std::size_t onWrite(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
  static int onProgress(void* self, curl_off_t downloadTotal, curl_off_t downloaded,
                        curl_off_t uploadTotal, curl_off_t uploaded);

  bool setCommonOptions(CURLSH* share);
  bool setKindOptions();
  bool buildMultipart();
  bool setHeaders();
  bool buildHeaderList(HeaderList& list, const std::string& extraLine);
  // Sets Range from resumeFrom and If-Range with the validator.
  bool askForTheRest();
  // At the first body byte of an attempt: checks that a resumed reply continues where the file
  // ends (a 206 from that byte) or starts it over (a 200), and takes the reply's length and
  // validator. False, with localError set, when the reply cannot be used.
  bool beginBody();
  void noteHeader(const std::string& line);
  bool isCutOff(CURLcode result) const;
  // Takes libcurl's measurements of the attempt that just ended, once per attempt.
  void recordAttempt();
  // Completes the timeline of the ending transfer, hands it to the response and logs it.
  void closeTimeline(HttpResponse& response, EndFacts facts);
  long responseCode() const;
  std::string describeFailure(CURLcode result) const;
  // The file being sent (a PUT's, or a multipart part's) that could not be read; null when none.
  const UploadFile* unreadableFile() const;
  // True once `moved` (bytes sent and received) has not changed for the stall guard's time. This
  // is the one stall detector (libcurl's low-speed limit is not set): libcurl calls the progress
  // function about once a second even while nothing moves, so the guard also catches a server that
  // never answers, and the failure always says the same thing ("the transfer stalled: ...").
  bool stalled(curl_off_t moved);
  void reportProgress(double done, double total);
  void reportFinalProgress();
  bool isDownload() const { return spec.kind == TransferSpec::Kind::Download; }

  std::string transferId;
  TransferSpec spec;
  TransferSettings settings;
  const std::atomic<bool>& quiet;

  std::unique_ptr<DownloadFile> download;
  std::unique_ptr<UploadFile> upload;
  // The files of a multipart body, read through our own code as libcurl sends them.
  std::vector<std::unique_ptr<UploadFile>> partFiles;
  std::string formBody;
  // Reply body of a successful post or upload, at most kMaxReplyBody bytes of it.
  std::string replyBody;
  // The last status line received ("HTTP/1.1 404 Not Found").
  std::string statusLine;
  // Why the transfer failed on this side (a file error), when it did.
  std::string localError;
  // errno behind localError, when a system call failed.
  int localErrno = 0;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  // Length of the whole file being downloaded; -1 while unknown.
  curl_off_t downloadLength = -1;

  // Resuming a download. The headers of the reply being received (reset at each status line):
  std::string replyEtag;
  std::string replyLastModified;
  std::string replyContentRange;
  // What If-Range sends: the first reply's strong ETag, else its Last-Modified; empty when it had
  // neither, and the rest is then never asked for: the whole file is fetched again instead.
  std::string validator;
  // Where the current attempt asked the body to start (0: the whole file).
  curl_off_t resumeFrom = 0;
  // Body bytes of the current attempt, and its Content-Length (-1 when unknown).
  curl_off_t attemptBytes = 0;
  curl_off_t attemptLength = -1;
  bool bodyBegun = false;
  // Status of the reply whose body the file begins with.
  long beganWithStatus = 0;
  // True once any byte of the body reached the file.
  bool receivedAny = false;
  bool stallTripped = false;
  int resumeCount = 0;
  // Attempts in a row that ended without bringing a byte.
  int barrenAttempts = 0;
  CURLcode lastAttemptResult = CURLE_OK;
  HeaderList resumeHeaders;

  // The timeline (see HttpTimeline): started in prepare(), times from the first attempt.
  HttpTimeline timeline;
  std::chrono::steady_clock::time_point startedAt;
  bool attemptRecorded = false;
  bool firstAttemptTimed = false;
  // Body bytes that reached a download's file over all its attempts.
  std::int64_t receivedBody = 0;
  curl_off_t uploadLength = 0;
  ProgressThrottle throttle;
  curl_off_t lastMoved = 0;
  std::chrono::steady_clock::time_point lastMovement;

  // Declared last so that the easy handle goes first, before the lists and files it points to.
  HeaderList headers;
  MimeHandle mime;
  EasyHandle easy;
};

}  // namespace quill_network_detail
