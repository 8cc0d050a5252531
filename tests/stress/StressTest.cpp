// Mixed downloads and uploads against the reference file service, with faults injected into part
// of them, random cancels, one cancel-all and account changes while the run is busy. Every request
// must end exactly once with the code and message its fault calls for, nothing may be lost or left
// behind, and the scheduler's limits must hold throughout.
//
// QUILL_STRESS_REQUESTS sets the number of requests (CI runs a bounded number; the full run is
// 2000), QUILL_STRESS_SEED the random seed (printed, so that a failing run can be repeated).

#include "../e2e/CloudEnvironment.h"
#include "CountingScheduler.h"
#include "StressSupport.h"

#include <gtest/gtest.h>

#include <quill_base/FileUtils.h>
#include <quill_base/SerialQueue.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace quill_test {
namespace {

using Clock = std::chrono::steady_clock;

enum class Kind { FileDownload, ImageDownload, ImageUpload, FileUpload, VideoUpload };
enum class Fault { None, Status, Drop, Stall, Malformed, Slow };

const char* faultName(Fault fault) {
  switch (fault) {
    case Fault::None:
      return "none";
    case Fault::Status:
      return "status";
    case Fault::Drop:
      return "drop";
    case Fault::Stall:
      return "stall";
    case Fault::Malformed:
      return "malformed";
    case Fault::Slow:
      return "slow";
  }
  return "?";
}

bool isDownload(Kind kind) {
  return kind == Kind::FileDownload || kind == Kind::ImageDownload;
}

// One request of the run and what happened to it.
struct Planned {
  int index = 0;
  Kind kind = Kind::FileDownload;
  Fault fault = Fault::None;
  int status = 0;           // for Fault::Status
  std::string faultPrefix;  // uploads: the route step the fault rule was added for
  std::string source;       // the local file (download: the original; upload: the file sent)
  int cancelAfterMs = -1;   // >= 0: cancelled this long after it was issued
  bool beforeCancelAll = false;
  std::shared_ptr<CloudStorageRequest> request;

  std::mutex mutex;
  int endings = 0;
  int state = 0;
  int code = 0;
  std::string message;
  std::string url;
  bool fileAtEnd = false;  // a download's final file existed when stateCallback ran
};

class Stress : public ::testing::Test {
protected:
  void SetUp() override {
    seed = static_cast<unsigned>(sizeFromEnvironment("QUILL_STRESS_SEED", 0));
    if (seed == 0) {
      seed = std::random_device{}();
    }
    std::printf("stress seed %u (QUILL_STRESS_SEED)\n", seed);
    random.seed(seed);
    user = std::make_unique<TempDir>();
    downloads = std::make_unique<TempDir>();
    sources = std::make_unique<TempDir>();
  }

  // Download sources on the server, in a few sizes; uploads send local files of the same sizes.
  void makeSources() {
#ifdef QUILL_SANITIZER_BUILD
    const std::size_t sizes[] = {6 * 1024, 40 * 1024, 160 * 1024};
#else
    const std::size_t sizes[] = {6 * 1024, 80 * 1024, 600 * 1024};
#endif
    for (unsigned i = 0; i < 3; ++i) {
      const auto key = "stress-" + std::to_string(i) + ".bin";
      const auto local = writePattern(sources->file(key), sizes[i], i + 7);
      downloadPaths.push_back(CloudEnvironment::server().addFile(key, local));
      downloadSources.push_back(local);
      for (const char* name : {"photo", "report", "clip"}) {
        const std::string ext = name == std::string("photo")    ? ".png"
                                : name == std::string("report") ? ".pdf"
                                                                : ".mov";
        const auto file = std::string(name) + std::to_string(i) + ext;
        writePattern(sources->file(file), sizes[i], i + 11);
        uploadFiles[name].push_back(file);
      }
    }
  }

  std::string downloadUrl(const Planned& planned, std::size_t sourceIndex) {
    const auto& path = downloadPaths[sourceIndex];
    std::string url = planned.kind == Kind::ImageDownload ? CloudEnvironment::staticUrl(path)
                                                          : CloudEnvironment::url(path);
    switch (planned.fault) {
      case Fault::Status:
        return url + "?quill_status=" + std::to_string(planned.status);
      case Fault::Drop:
        return url + "?quill_drop_after=1500";
      case Fault::Stall:
        return url + "?quill_stall_after=1500";
      case Fault::Slow:
        return url + "?quill_rate=400000";
      default:
        return url;
    }
  }

  // Adds the server rule for an upload's fault, on one step of its route.
  void addUploadFault(Planned& planned) {
    std::vector<std::string> steps;
    switch (planned.kind) {
      case Kind::ImageUpload:
        steps = {"/file/uploadImg.action"};
        break;
      case Kind::FileUpload:
        steps = {"/file/uploadBySignature.action", "/objects/"};
        break;
      default:
        steps = {"/file/getUploadVideoSignature.action", "/vod/upload"};
        break;
    }
    planned.faultPrefix = steps[random() % steps.size()];
    const bool jsonStep = planned.faultPrefix.rfind("/file/", 0) == 0;
    if (planned.fault == Fault::Malformed && !jsonStep) {
      // The signed uploads never read their reply: a malformed body there is not a fault.
      planned.fault = Fault::Status;
    }
    quill_fileservice::Fault rule;
    rule.pathPrefix = planned.faultPrefix;
    rule.times = 1;
    switch (planned.fault) {
      case Fault::Status:
        rule.status = planned.status = 500 + static_cast<int>(random() % 4);
        break;
      case Fault::Drop:
        rule.dropAfterBytes = 3;
        break;
      case Fault::Stall:
        rule.stallAfterBytes = 3;
        break;
      case Fault::Malformed:
        rule.hasBody = true;
        rule.body = "{\"code\":0,\"path\":";
        break;
      case Fault::Slow:
        rule.bytesPerSecond = 20;
        break;
      case Fault::None:
        return;
    }
    std::lock_guard<std::mutex> lock(ruleMutex);
    injected[planned.faultPrefix][bucketOf(planned.faultPrefix, planned.fault)]++;
    CloudEnvironment::server().addFault(rule);
  }

  // Failures that the tables cannot tell apart share a bucket: a dropped and a stalled reply both
  // end as a failed transfer.
  static std::string bucketOf(const std::string& step, Fault fault) {
    if (fault == Fault::Slow) {
      return "slow";
    }
    if (fault == Fault::Malformed) {
      return "malformed";
    }
    if (step.rfind("/file/uploadBy", 0) == 0 || step.rfind("/file/getUpload", 0) == 0) {
      return fault == Fault::Status ? "status" : "transport";
    }
    return "failed";  // the file-service upload and the signed uploads report the description
  }

  void issue(const std::shared_ptr<Planned>& planned) {
    const auto kind = planned->kind;
    auto request = std::make_shared<CloudStorageRequest>(!isDownload(kind));
    request->requestId = "stress-" + std::to_string(planned->index);
    const auto sourceIndex = static_cast<std::size_t>(random() % downloadPaths.size());
    if (isDownload(kind)) {
      request->kind = kind == Kind::ImageDownload ? 1 : 2;
      request->url = downloadUrl(*planned, sourceIndex);
      request->directory = downloads->path();
      request->fileName = "d" + std::to_string(planned->index) + ".bin";
      planned->source = downloadSources[sourceIndex];
    } else {
      const char* name = kind == Kind::ImageUpload  ? "photo"
                         : kind == Kind::FileUpload ? "report"
                                                    : "clip";
      request->kind = kind == Kind::ImageUpload ? 1 : kind == Kind::FileUpload ? 2 : 3;
      request->directory = sources->path();
      request->fileName = uploadFiles[name][sourceIndex];
      planned->source = sources->file(request->fileName);
    }
    std::weak_ptr<Planned> weak = planned;
    request->stateCallback = [weak](std::shared_ptr<CloudStorageRequest> ended, int state) {
      auto target = weak.lock();
      if (!target) {
        return;
      }
      const bool exists = !ended->isUpload && FileUtils::fileExists(FileUtils::appendComponent(
                                                  ended->directory, ended->fileName));
      {
        std::lock_guard<std::mutex> lock(target->mutex);
        ++target->endings;
        target->state = state;
        target->code = ended->resultCode;
        target->message = ended->resultMessage;
        target->url = ended->url;
        target->fileAtEnd = exists;
      }
    };
    planned->request = request;
    ASSERT_TRUE(logic->addRequest(request));
  }

  int endedCount() {
    int ended = 0;
    for (auto& planned : plan) {
      std::lock_guard<std::mutex> lock(planned->mutex);
      ended += planned->endings > 0 ? 1 : 0;
    }
    return ended;
  }

  unsigned seed = 0;
  std::mt19937 random;
  std::unique_ptr<TempDir> user;
  std::unique_ptr<TempDir> downloads;
  std::unique_ptr<TempDir> sources;
  std::vector<std::string> downloadPaths;
  std::vector<std::string> downloadSources;
  std::map<std::string, std::vector<std::string>> uploadFiles;
  std::mutex ruleMutex;
  std::map<std::string, std::map<std::string, int>> injected;
  std::vector<std::shared_ptr<Planned>> plan;
  std::shared_ptr<RunningCounts> counts = std::make_shared<RunningCounts>();
  std::shared_ptr<cloud::CloudStorageLogic> logic;
};

// The code and message the tables give for a download's fault (nothing cancelled).
void expectDownloadOutcome(const Planned& p, int code, const std::string& message) {
  SCOPED_TRACE("download " + std::to_string(p.index) + " fault " + faultName(p.fault) + " url " +
               p.request->url);
  switch (p.fault) {
    case Fault::None:
    case Fault::Slow:
    case Fault::Malformed:
      EXPECT_EQ(code, CloudStorageResult::kSuccess);
      EXPECT_EQ(message, "");
      break;
    case Fault::Status: {
      const int expected = p.status == 404   ? -2
                           : p.status == 403 ? -3
                           : p.status == 400 ? -4
                                             : -100;
      EXPECT_EQ(code, expected);
      EXPECT_EQ(message, std::to_string(p.status));
      break;
    }
    case Fault::Drop:
    case Fault::Stall:
      // The status line (200) had arrived when the body broke off.
      EXPECT_EQ(code, CloudStorageResult::kTransferFailed);
      EXPECT_EQ(message, "200");
      break;
  }
}

// Which fault bucket of which step explains an upload's failure; empty when none does.
std::pair<std::string, std::string> explainUploadFailure(Kind kind, int code,
                                                         const std::string& message) {
  if (code != -100) {
    return {};
  }
  if (kind == Kind::ImageUpload) {
    if (message == "parse response failed") {
      return {"/file/uploadImg.action", "malformed"};
    }
    return message.empty()
               ? std::pair<std::string, std::string>{}
               : std::pair<std::string, std::string>{"/file/uploadImg.action", "failed"};
  }
  const std::string signature = kind == Kind::FileUpload ? "/file/uploadBySignature.action"
                                                         : "/file/getUploadVideoSignature.action";
  const std::string upload = kind == Kind::FileUpload ? "/objects/" : "/vod/upload";
  if (message == "parse signature response failed") {
    return {signature, "malformed"};
  }
  if (message.rfind("request signature failed, 5", 0) == 0) {
    return {signature, "status"};
  }
  if (message == "request signature failed, 200" || message == "request signature failed, 0") {
    return {signature, "transport"};
  }
  if (message.rfind("request signature", 0) == 0 || message.rfind("signature response", 0) == 0) {
    return {};  // a refusal of the service itself: no fault explains it
  }
  return message.empty() ? std::pair<std::string, std::string>{}
                         : std::pair<std::string, std::string>{upload, "failed"};
}

TEST_F(Stress, MixedRequestsWithFaultsCancelsAndAccountChanges) {
#ifdef QUILL_SANITIZER_BUILD
  const int total = sizeFromEnvironment("QUILL_STRESS_REQUESTS", 80);
#else
  const int total = sizeFromEnvironment("QUILL_STRESS_REQUESTS", 150);
#endif
  makeSources();

  // Warm up the network engine, so that its threads and connections count as the baseline.
  logic = makeCountingScheduler(true, counts);
  logic->changeUser("stress-app", "stress-pin", user->path());
  logic->changeAid("stress-aid-1");
  {
    auto warm = std::make_shared<Planned>();
    warm->index = -1;
    plan.push_back(warm);
    issue(warm);
    ASSERT_TRUE(eventually([&] { return endedCount() == 1; }, std::chrono::seconds(30)));
    plan.clear();
  }
  const auto threadsBefore = namedThreadCount();
  const auto descriptorsBefore = openDescriptors();

  for (int i = 0; i < total; ++i) {
    auto planned = std::make_shared<Planned>();
    planned->index = i;
    planned->kind = static_cast<Kind>(random() % 5);
    if (random() % 100 < 30) {
      planned->fault = static_cast<Fault>(1 + random() % 5);
      if (planned->fault == Fault::Status) {
        static const int statuses[] = {500, 502, 503, 404, 403, 400};
        planned->status = statuses[random() % 6];
      }
    }
    if (random() % 100 < 20) {
      planned->cancelAfterMs = static_cast<int>(random() % 400);
    }
    planned->beforeCancelAll = i < total / 2;
    plan.push_back(planned);
  }

  // Cancels at random moments, from a thread of their own.
  std::multimap<Clock::time_point, std::string> cancels;
  std::mutex cancelsMutex;
  std::condition_variable cancelsChanged;
  bool issuing = true;
  std::thread canceller([&] {
    const auto deadline = Clock::now() + std::chrono::minutes(10);
    std::unique_lock<std::mutex> lock(cancelsMutex);
    while (Clock::now() < deadline) {
      if (cancels.empty()) {
        if (!issuing) {
          return;
        }
        cancelsChanged.wait_for(lock, std::chrono::milliseconds(50));
        continue;
      }
      const auto due = cancels.begin()->first;
      if (Clock::now() < due) {
        cancelsChanged.wait_until(lock, due);
        continue;
      }
      const auto id = cancels.begin()->second;
      cancels.erase(cancels.begin());
      lock.unlock();
      logic->cancelRequestWithId(id);
      lock.lock();
    }
  });

  const auto started = Clock::now();
  for (int i = 0; i < total; ++i) {
    auto& planned = plan[static_cast<std::size_t>(i)];
    if (planned->fault != Fault::None && !isDownload(planned->kind)) {
      addUploadFault(*planned);
    }
    issue(planned);
    if (planned->cancelAfterMs >= 0) {
      std::lock_guard<std::mutex> lock(cancelsMutex);
      cancels.emplace(Clock::now() + std::chrono::milliseconds(planned->cancelAfterMs),
                      planned->request->requestId);
      cancelsChanged.notify_all();
    }
    if (i % 25 == 24) {
      // A different account: requests keep going (a blank account id would hold new uploads).
      logic->changeAid(i % 50 == 49 ? "stress-aid-1" : "stress-aid-2");
    }
    if (i == total / 2 - 1) {
      // Mid-run: once a quarter of the requests have ended, everything in flight is cancelled.
      ASSERT_TRUE(eventually([&] { return endedCount() >= total / 4; }, std::chrono::minutes(5)));
      logic->cancelAllRequests();
    }
  }
  {
    std::lock_guard<std::mutex> lock(cancelsMutex);
    issuing = false;
    cancelsChanged.notify_all();
  }
  const bool allEnded = eventually([&] { return endedCount() == total; }, std::chrono::minutes(10));
  canceller.join();
  const auto elapsed = std::chrono::duration<double>(Clock::now() - started).count();
  ASSERT_TRUE(allEnded) << endedCount() << " of " << total << " ended";

  // Let anything still on its way (a late network completion) reach the queue before the counts
  // are read: a second stateCallback would show up here.
  for (int round = 0; round < 3; ++round) {
    EventCounter drained;
    logic->getQueue()->dispatch([&] { drained.add(); });
    ASSERT_TRUE(drained.waitFor(1));
  }

  std::map<std::string, std::map<std::string, int>> explained;
  std::map<std::string, int> tally;
  for (auto& p : plan) {
    std::lock_guard<std::mutex> lock(p->mutex);
    SCOPED_TRACE("request " + std::to_string(p->index) + " kind " +
                 std::to_string(static_cast<int>(p->kind)) + " fault " + faultName(p->fault));
    EXPECT_EQ(p->endings, 1);
    EXPECT_EQ(p->state, CloudStorageState::kFinished);
    const bool mayBeCancelled = p->cancelAfterMs >= 0 || p->beforeCancelAll;
    tally[p->code == 2 ? "succeeded" : p->code == 3 ? "cancelled" : "failed"]++;
    if (isDownload(p->kind)) {
      const auto finalPath =
          FileUtils::appendComponent(p->request->directory, p->request->fileName);
      if (p->code == 2) {
        EXPECT_TRUE(p->fileAtEnd);
        EXPECT_TRUE(FileUtils::sameContent(finalPath, p->source)) << finalPath;
      } else {
        EXPECT_FALSE(p->fileAtEnd) << "code " << p->code;
        EXPECT_FALSE(FileUtils::fileExists(finalPath)) << "code " << p->code;
      }
      if (p->code == 3) {
        EXPECT_TRUE(mayBeCancelled);
        // Cancelled while waiting: no message; while running: the status in decimal.
        EXPECT_EQ(p->message.find_first_not_of("0123456789"), std::string::npos) << p->message;
        continue;
      }
      expectDownloadOutcome(*p, p->code, p->message);
      continue;
    }
    // Uploads.
    if (p->code == 2) {
      const auto scheme = p->url.find("://");
      ASSERT_NE(scheme, std::string::npos) << p->url;
      const auto path = p->url.substr(p->url.find('/', scheme + 3));
      const auto stored = CloudEnvironment::server().storedFile(path);
      EXPECT_FALSE(stored.empty()) << "nothing stored at " << path;
      EXPECT_TRUE(FileUtils::sameContent(stored, p->source)) << path;
      continue;
    }
    if (p->code == 3) {
      EXPECT_TRUE(mayBeCancelled);
      continue;
    }
    const auto why = explainUploadFailure(p->kind, p->code, p->message);
    EXPECT_FALSE(why.first.empty())
        << "no injected fault explains code " << p->code << " \"" << p->message << "\"";
    explained[why.first][why.second]++;
  }
  // Faults were added as rules that whichever upload reaches the step first consumes, so they are
  // matched by count: no failure of a kind more often than faults of that kind were injected.
  for (const auto& [step, buckets] : explained) {
    for (const auto& [bucket, seen] : buckets) {
      std::lock_guard<std::mutex> lock(ruleMutex);
      EXPECT_LE(seen, injected[step][bucket]) << step << " " << bucket;
    }
  }

  // The limits hold at every regular start; restarts from the retry timer bypass them by design.
  EXPECT_LE(counts->maxUploads.load(), 2);
  EXPECT_LE(counts->maxDownloads.load(), 4);
  EXPECT_GE(counts->maxDownloads.load(), 2) << "the run never got busy";

  // Nothing left behind: no temporary download, no file of a failed download, no thread, and the
  // descriptors back to where they were (the engine keeps a bounded cache of idle connections).
  EXPECT_EQ(entriesIn(FileUtils::appendComponent(user->path(), "cloud_storage_caches")), 0u);
  CloudEnvironment::server().clearFaults();
  releaseScheduler(logic);
  EXPECT_TRUE(
      eventually([&] { return namedThreadCount() <= threadsBefore; }, std::chrono::seconds(20)))
      << namedThreadCount() << " threads, " << threadsBefore << " before";
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= descriptorsBefore + 8; },
                         std::chrono::seconds(20)))
      << openDescriptors() << " descriptors, " << descriptorsBefore << " before";

  std::printf(
      "stress: %d requests in %.1f s: %d succeeded, %d failed, %d cancelled; "
      "at most %d uploads and %d downloads at once (%d retry restarts)\n",
      total, elapsed, tally["succeeded"], tally["failed"], tally["cancelled"],
      counts->maxUploads.load(), counts->maxDownloads.load(), counts->retryStarts.load());
}

}  // namespace
}  // namespace quill_test
