#pragma once

#include <quill_network/detail/HttpTransport.h>

#include "detail/CurlHandles.h"
#include "detail/CurlTransfer.h"
#include "detail/DownloadFile.h"
#include "detail/EasyHandlePool.h"
#include "detail/TransferSettings.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace quill_network_detail {

// The libcurl engine: one multi handle driven by one network thread, which runs every transfer,
// calls every progress and completion function, and is the only thread that touches an easy
// handle. Other threads only queue work (start, cancel) and wake the thread with
// curl_multi_wakeup; a thread that starts a download also makes its file. The multi handle keeps
// connections (and so TLS and HTTP/2 sessions) open for reuse, its resolver cache serves every
// transfer, a share handle lets TLS sessions resume across connections, and the easy handles of
// ended transfers serve the next ones.
//
// Completion is called exactly once for every transfer that ends before shutdown(): with the
// result, or with outcome 1 after cancel(), whether the transfer was running or still queued.
//
// shutdown() stops the thread and abandons the transfers in flight: their completion functions are
// not called (at process exit the objects they refer to may already be gone), partial download
// files are removed. Transfers started afterwards are dropped the same way.
class CurlEngine final : public HttpTransport {
public:
  CurlEngine();
  ~CurlEngine() override;
  CurlEngine(const CurlEngine&) = delete;
  CurlEngine& operator=(const CurlEngine&) = delete;

  void start(const std::string& id, TransferSpec spec) override;
  void cancel(const std::string& id) override;

  // Stops and joins the network thread (from the network thread itself: lets it go without
  // waiting). Safe to call more than once and from any thread.
  void shutdown();

private:
  struct QueuedStart {
    std::string id;
    TransferSpec spec;
    TransferSettings settings;
    // A download's file, made by the thread that started it.
    std::unique_ptr<DownloadFile> file;
  };

  void run();
  void handleQueued(std::vector<QueuedStart> starts, std::vector<std::string> cancels);
  void launch(QueuedStart queued);
  void cancelActive(const std::string& id);
  void collectFinished();
  // Asks for the rest of a cut-off download; false when it could not be set up.
  bool resume(CurlTransfer& transfer);
  void resumeTheDue();
  // How long the network thread may sleep before a waiting resume is due.
  long pollTimeoutMs() const;
  void end(std::unique_ptr<CurlTransfer> transfer, CURLcode result);
  // Lets an ended transfer go. Its easy handle (out of the multi handle) goes to the pool when
  // libcurl ended the transfer as a success: a handle whose transfer failed early (a protocol
  // refused, say) may keep its receive buffer, and libcurl then refuses to size it for the next.
  void retire(std::unique_ptr<CurlTransfer> transfer, bool handleReusable);
  void complete(const std::string& id, const HttpClient::CompletionFunction& completion,
                const std::shared_ptr<HttpResponse>& response);
  void abandonAll();
  // Under mutex: makes the network thread look at its news, waking it if it sleeps.
  void wakeLocked();
  // Whether the network thread may sleep in curl_multi_poll now: nothing is queued for it.
  bool mayPoll();

  // Set once shutdown begins; read lock-free by the transfers to stop calling the caller's
  // functions.
  std::atomic<bool> quiet{false};

  std::mutex mutex;
  bool stopping = false;  // under mutex: no more wakeups once the network thread has seen it
  // Under mutex: the network thread is in (or about to enter) curl_multi_poll and no wakeup has
  // been sent since. News finds the thread otherwise at the top of its loop, without a wakeup.
  bool pollingUnwoken = false;
  std::vector<QueuedStart> queuedStarts;
  std::vector<std::string> queuedCancels;
  std::unordered_set<std::string> liveIds;  // started and not yet completed

  ShareHandle share;
  MultiHandle multi;
  // The network thread's own: every transfer that was added to the multi handle, and cut-off
  // downloads waiting to ask for their rest (out of the multi handle until their time comes).
  std::unordered_map<std::string, std::unique_ptr<CurlTransfer>> active;
  // Room for the handles of every transfer the scheduler runs at once (four downloads, two
  // uploads) and a few more.
  EasyHandlePool easyHandles{8};
  struct WaitingResume {
    std::chrono::steady_clock::time_point due;
    std::string id;
  };
  std::vector<WaitingResume> waitingResumes;
  std::mutex joinMutex;  // one joiner at a time
  std::thread worker;
#if defined(_WIN32)
  // How shutdown() waits for the network thread on Windows without joining it (see
  // CurlEngine.cpp): an event the thread sets once it has abandoned everything, and the thread's
  // own handle, which is set when the thread ended some other way.
  void* workerDone = nullptr;
  void* workerThread = nullptr;
  void waitForTheWorkerToFinish();
#endif
};

}  // namespace quill_network_detail
