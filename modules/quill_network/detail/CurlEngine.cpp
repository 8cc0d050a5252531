#include "detail/CurlEngine.h"

#include "detail/CurlGlobal.h"
#include "detail/ReceiveBufferHeap.h"

#include <quill_base/FileUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/ThreadUtils.h>

#include <algorithm>
#include <exception>
#include <new>
#include <stdexcept>

#if defined(_WIN32)
#include <pthread.h>
#include <windows.h>
#endif

namespace quill_network_detail {
namespace {

// The longest the network thread sleeps without news; libcurl wakes it sooner for its own timers.
constexpr long kMaxPollMs = 1000;

}  // namespace

CurlEngine::CurlEngine() {
  if (!ensureCurlGlobalInit()) {
    throw std::runtime_error("libcurl could not be initialised");
  }
  share.reset(curl_share_init());
  multi.reset(curl_multi_init());
  if (!share || !multi) {
    throw std::bad_alloc();
  }
  // Only the network thread uses the share handle, so it needs no lock functions.
  curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
#if defined(_WIN32)
  workerDone = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (workerDone == nullptr) {
    throw std::bad_alloc();
  }
  worker = std::thread([this] {
    run();
    // Ends the thread here, never returning into this DLL's code: when the DLL is being unloaded,
    // ExitThread waits for the loader lock until the unloading is over, and then has nothing of
    // this DLL left to run.
    SetEvent(workerDone);
    ExitThread(0);
  });
  HANDLE own = nullptr;
  DuplicateHandle(GetCurrentProcess(), pthread_gethandle(worker.native_handle()),
                  GetCurrentProcess(), &own, SYNCHRONIZE, FALSE, 0);
  workerThread = own;
#else
  worker = std::thread([this] { run(); });
#endif
}

CurlEngine::~CurlEngine() {
  shutdown();
}

void CurlEngine::start(const std::string& id, TransferSpec spec) {
  QueuedStart queued{id, std::move(spec), TransferSettings::fromEnvironment(), nullptr};
  // A download's file is made here, on the caller's thread: making a file is one of the costliest
  // steps of a small download, and the network thread, which every transfer waits for, is then
  // left with the network.
  if (queued.spec.kind == TransferSpec::Kind::Download) {
    queued.file = CurlTransfer::openDownloadFile(queued.spec);
  }
  std::lock_guard<std::mutex> lock(mutex);
  if (stopping) {
    // `queued` and the caller's functions go when this returns, outside the lock; so does the file
    // made for it, which its owner removes.
    return;
  }
  liveIds.insert(id);
  queuedStarts.push_back(std::move(queued));
  wakeLocked();
}

void CurlEngine::cancel(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex);
  if (stopping || liveIds.count(id) == 0) {
    return;
  }
  queuedCancels.push_back(id);
  wakeLocked();
}

void CurlEngine::shutdown() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!stopping) {
      stopping = true;
      quiet.store(true);
      curl_multi_wakeup(multi.get());
    }
  }
  std::lock_guard<std::mutex> lock(joinMutex);
  if (!worker.joinable()) {
    return;
  }
  if (worker.get_id() == std::this_thread::get_id()) {
    // A function of the caller's ended the process from the network thread: nothing runs on
    // this thread after it, and it cannot wait for itself.
    worker.detach();
  } else {
#if defined(_WIN32)
    waitForTheWorkerToFinish();
#else
    worker.join();
#endif
  }
}

#if defined(_WIN32)
// On Windows shutdown() runs, from the static destructors, under the loader lock: when the DLL is
// unloaded (FreeLibrary) and at process exit. A thread cannot end without that lock, so joining
// the network thread would deadlock; the thread's own signal that its work is over is awaited
// instead. At process exit Windows has already ended every other thread, the network thread
// included, wherever it was: what it left in flight is abandoned here then, to remove the partial
// downloads as the thread would have.
void CurlEngine::waitForTheWorkerToFinish() {
  HANDLE ends[2] = {static_cast<HANDLE>(workerDone), static_cast<HANDLE>(workerThread)};
  const DWORD count = ends[1] != nullptr ? 2 : 1;
  const DWORD ended = WaitForMultipleObjects(count, ends, FALSE, INFINITE);
  worker.detach();
  if (ended != WAIT_OBJECT_0) {
    // No lock: the thread that could hold one is gone. The transfers remove their files as they go.
    std::unordered_map<std::string, std::unique_ptr<CurlTransfer>>().swap(active);
  }
}
#endif

void CurlEngine::run() {
  // Named for profiles and debuggers; unnamed, it would carry the name of the thread that made the
  // engine (often a serial queue's).
  ThreadUtils::setCurrentThreadName("quill network");
  QLOG_DEBUG("network thread started");
  keepReceiveBuffersInTheHeap();
  try {
    while (true) {
      std::vector<QueuedStart> starts;
      std::vector<std::string> cancels;
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping) {
          break;
        }
        pollingUnwoken = false;
        starts.swap(queuedStarts);
        cancels.swap(queuedCancels);
      }
      handleQueued(std::move(starts), std::move(cancels));
      resumeTheDue();
      int running = 0;
      const CURLMcode performed = curl_multi_perform(multi.get(), &running);
      if (performed != CURLM_OK) {
        QLOG_ERROR("curl_multi_perform failed: " << curl_multi_strerror(performed));
      }
      collectFinished();
      if (!mayPoll()) {
        continue;
      }
      const CURLMcode polled =
          curl_multi_poll(multi.get(), nullptr, 0, static_cast<int>(pollTimeoutMs()), nullptr);
      if (polled != CURLM_OK) {
        QLOG_ERROR("curl_multi_poll failed: " << curl_multi_strerror(polled));
      }
    }
  } catch (const std::exception& error) {
    QLOG_ERROR("network thread stopped: " << error.what());
  }
  abandonAll();
}

void CurlEngine::wakeLocked() {
  // A wakeup is a write to a socket pair and a read on the network thread: for a stream of short
  // transfers that is one of each per file. The thread busy with transfers finds the news at the
  // top of its loop; only a thread that has committed to sleeping needs one, and one is enough.
  if (pollingUnwoken) {
    pollingUnwoken = false;
    curl_multi_wakeup(multi.get());
  }
}

bool CurlEngine::mayPoll() {
  std::lock_guard<std::mutex> lock(mutex);
  if (stopping || !queuedStarts.empty() || !queuedCancels.empty()) {
    return false;
  }
  // From here until the thread takes its news again, whoever queues something wakes it. A wakeup
  // sent before the poll starts makes the poll return at once.
  pollingUnwoken = true;
  return true;
}

void CurlEngine::handleQueued(std::vector<QueuedStart> starts, std::vector<std::string> cancels) {
  // A cancel that meets its transfer still queued ends it before it ever reaches libcurl.
  for (auto cancelled = cancels.begin(); cancelled != cancels.end();) {
    auto queued = std::find_if(starts.begin(), starts.end(),
                               [&](const QueuedStart& start) { return start.id == *cancelled; });
    if (queued == starts.end()) {
      ++cancelled;
      continue;
    }
    QueuedStart start = std::move(*queued);
    starts.erase(queued);
    cancelled = cancels.erase(cancelled);
    // Only the file made for it is removed (by its owner): whatever else is at its path is not
    // ours.
    start.file.reset();
    auto response = std::make_shared<HttpResponse>();
    response->outcome = HttpResponse::kCancelled;
    response->text = "cancelled";
    response->timeline = timelineOf(start.spec);
    response->timeline.cause = "cancelled";
    QLOG_INFO(timelineLine(start.id, response->timeline));
    complete(start.id, start.spec.completion, response);
  }
  for (QueuedStart& start : starts) {
    launch(std::move(start));
  }
  for (const std::string& id : cancels) {
    cancelActive(id);
  }
}

void CurlEngine::launch(QueuedStart queued) {
  auto transfer = std::make_unique<CurlTransfer>(
      queued.id, std::move(queued.spec), std::move(queued.settings), std::move(queued.file), quiet);
  std::shared_ptr<HttpResponse> failure;
  if (!transfer->prepare(share.get(), easyHandles)) {
    failure = transfer->failedToStart();
  } else if (const CURLMcode added = curl_multi_add_handle(multi.get(), transfer->handle());
             added != CURLM_OK) {
    failure = std::make_shared<HttpResponse>();
    failure->text =
        std::string("libcurl could not start the transfer: ") + curl_multi_strerror(added);
  }
  if (failure) {
    QLOG_WARN("transfer " << queued.id << " could not start: " << failure->text);
    auto completion = transfer->takeCompletion();
    retire(std::move(transfer), false);
    complete(queued.id, completion, failure);
    return;
  }
  QLOG_DEBUG("transfer " << queued.id << " started");
  active.emplace(queued.id, std::move(transfer));
}

void CurlEngine::cancelActive(const std::string& id) {
  auto found = active.find(id);
  if (found == active.end()) {
    return;  // finished meanwhile: its completion has been called already
  }
  std::unique_ptr<CurlTransfer> transfer = std::move(found->second);
  active.erase(found);
  curl_multi_remove_handle(multi.get(), transfer->handle());
  auto response = transfer->cancel();
  auto completion = transfer->takeCompletion();
  retire(std::move(transfer), false);
  QLOG_DEBUG("transfer " << id << " cancelled");
  complete(id, completion, response);
}

void CurlEngine::collectFinished() {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi.get(), &left)) {
    if (message->msg != CURLMSG_DONE) {
      continue;
    }
    // The message belongs to the handle and goes with it: copy what is needed first.
    CURL* easy = message->easy_handle;
    const CURLcode result = message->data.result;
    char* context = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &context);
    auto* finished = reinterpret_cast<CurlTransfer*>(context);
    curl_multi_remove_handle(multi.get(), easy);
    auto found = active.find(finished->id());
    if (found == active.end() || found->second.get() != finished) {
      QLOG_ERROR("libcurl reported a transfer the engine does not know");
      continue;
    }
    const CurlTransfer::Resume next = finished->resumeAfter(result);
    if (next.when == CurlTransfer::Resume::When::Now && resume(*finished)) {
      continue;
    }
    if (next.when == CurlTransfer::Resume::When::Later) {
      waitingResumes.push_back({std::chrono::steady_clock::now() + next.wait, finished->id()});
      continue;
    }
    std::unique_ptr<CurlTransfer> transfer = std::move(found->second);
    active.erase(found);
    end(std::move(transfer), result);
  }
}

void CurlEngine::end(std::unique_ptr<CurlTransfer> transfer, CURLcode result) {
  const std::string id = transfer->id();
  auto response = transfer->finish(result);
  auto completion = transfer->takeCompletion();
  retire(std::move(transfer), result == CURLE_OK);
  complete(id, completion, response);
}

void CurlEngine::retire(std::unique_ptr<CurlTransfer> transfer, bool handleReusable) {
  if (handleReusable) {
    easyHandles.give(transfer->releaseHandle());
  }
}

bool CurlEngine::resume(CurlTransfer& transfer) {
  if (!transfer.prepareResume()) {
    return false;
  }
  const CURLMcode added = curl_multi_add_handle(multi.get(), transfer.handle());
  if (added != CURLM_OK) {
    QLOG_ERROR("transfer " << transfer.id()
                           << " could not ask for its rest: " << curl_multi_strerror(added));
    return false;
  }
  return true;
}

void CurlEngine::resumeTheDue() {
  if (waitingResumes.empty()) {
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  std::vector<WaitingResume> due;
  for (auto waiting = waitingResumes.begin(); waiting != waitingResumes.end();) {
    if (waiting->due <= now) {
      due.push_back(std::move(*waiting));
      waiting = waitingResumes.erase(waiting);
    } else {
      ++waiting;
    }
  }
  for (const WaitingResume& waiting : due) {
    auto found = active.find(waiting.id);
    if (found == active.end()) {
      continue;  // cancelled while it waited
    }
    if (!resume(*found->second)) {
      std::unique_ptr<CurlTransfer> transfer = std::move(found->second);
      active.erase(found);
      const CURLcode result = transfer->lastResult();
      end(std::move(transfer), result);
    }
  }
}

long CurlEngine::pollTimeoutMs() const {
  long timeout = kMaxPollMs;
  const auto now = std::chrono::steady_clock::now();
  for (const WaitingResume& waiting : waitingResumes) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(waiting.due - now).count() + 1;
    // Parenthesised: windows.h defines min and max as macros.
    timeout = (std::min)(timeout, (std::max)(0L, static_cast<long>(left)));
  }
  return timeout;
}

void CurlEngine::complete(const std::string& id, const HttpClient::CompletionFunction& completion,
                          const std::shared_ptr<HttpResponse>& response) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    liveIds.erase(id);
  }
  if (!completion || quiet.load()) {
    return;
  }
  try {
    completion(response);
  } catch (const std::exception& error) {
    QLOG_ERROR("completion function of " << id << " threw: " << error.what());
  } catch (...) {
    QLOG_ERROR("completion function of " << id << " threw");
  }
}

void CurlEngine::abandonAll() {
  for (auto& entry : active) {
    curl_multi_remove_handle(multi.get(), entry.second->handle());
  }
  // Each transfer removes its partial download file as it goes. Swapping with empty containers
  // gives their memory back too: the engine object itself is never destroyed.
  std::unordered_map<std::string, std::unique_ptr<CurlTransfer>>().swap(active);
  // Before the share handle: a kept handle still counts as one of its users.
  easyHandles.clear();
  std::vector<QueuedStart> starts;
  std::vector<std::string> cancels;
  std::unordered_set<std::string> ids;
  {
    std::lock_guard<std::mutex> lock(mutex);
    starts.swap(queuedStarts);
    cancels.swap(queuedCancels);
    ids.swap(liveIds);
  }
  // Nobody wakes the multi handle any more: every other thread saw `stopping` under the lock.
  multi.reset();
  share.reset();
}

}  // namespace quill_network_detail
