// Where the time of many small downloads goes: the same downloads as `quill-bench-transfer many`
// (four at a time, each file where the URL's last component names it), made through fewer of the
// library's layers, so that bench/run can set each layer's cost beside curl's in one run.
//
//   quill-bench-layers engine URL_LIST DIRECTORY        HttpClient alone: each completion starts
//                                                       the next download on the network thread
//   quill-bench-layers queue URL_LIST DIRECTORY         each completion is posted to a SerialQueue,
//                                                       which starts the next download
//   quill-bench-layers queue-rename URL_LIST DIRECTORY  as queue, each file written under a
//                                                       temporary name and renamed into place there
//
// The whole service (scheduler, tasks, temporary file in the cache directory, resume records) is
// `quill-bench-transfer many`. Prints one line of JSON; exit status 0 when every download
// succeeded, 1 when one failed, 2 for a usage error.
#include "../common/ThreadCpu.h"
#include "../common/UrlList.h"

#include <quill_base/SerialQueue.h>
#include <quill_network/HttpClient.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kAtATime = 4;
constexpr std::chrono::seconds kDeadline{600};

enum class Layer { Engine, Queue, QueueRename };

class Downloads {
public:
  Downloads(Layer layer, std::vector<std::string> urls, std::string directory)
      : layer(layer),
        urls(std::move(urls)),
        directory(std::move(directory)),
        queue(std::make_shared<SerialQueue>("layers queue")) {}

  // True when every download ended, successful or not, before the deadline.
  bool run() {
    queue->dispatch([this] {
      for (std::size_t i = 0; i < kAtATime; ++i) {
        startNext();
      }
    });
    std::unique_lock<std::mutex> lock(mutex);
    return ended.wait_for(lock, kDeadline, [this] { return done == urls.size(); });
  }

  std::size_t failures() const { return failed.load(); }
  std::size_t count() const { return urls.size(); }

private:
  std::string finalPath(std::size_t index) const {
    const std::string& url = urls[index];
    return directory + "/" + url.substr(url.find_last_of('/') + 1);
  }

  std::string writtenPath(std::size_t index) const {
    return layer == Layer::QueueRename ? finalPath(index) + ".part" : finalPath(index);
  }

  void startNext() {
    const std::size_t index = next.fetch_add(1);
    if (index >= urls.size()) {
      return;
    }
    HttpClient::downloadFile(urls[index], writtenPath(index), nullptr,
                             [this, index](std::shared_ptr<HttpResponse> response) {
                               const bool ok = response &&
                                               response->outcome == HttpResponse::kCompleted &&
                                               response->status == 200;
                               if (layer == Layer::Engine) {
                                 finished(index, ok);
                               } else {
                                 queue->dispatch([this, index, ok] { finished(index, ok); });
                               }
                             });
  }

  void finished(std::size_t index, bool ok) {
    if (ok && layer == Layer::QueueRename &&
        std::rename(writtenPath(index).c_str(), finalPath(index).c_str()) != 0) {
      ok = false;
    }
    if (!ok) {
      ++failed;
    }
    startNext();
    std::lock_guard<std::mutex> lock(mutex);
    if (++done == urls.size()) {
      ended.notify_all();
    }
  }

  const Layer layer;
  const std::vector<std::string> urls;
  const std::string directory;
  std::shared_ptr<SerialQueue> queue;
  std::atomic<std::size_t> next{0};
  std::atomic<std::size_t> failed{0};
  std::mutex mutex;
  std::condition_variable ended;
  std::size_t done = 0;
};

int usage() {
  std::fprintf(stderr, "usage: quill-bench-layers engine|queue|queue-rename URL_LIST DIRECTORY\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    return usage();
  }
  const std::string name = argv[1];
  Layer layer = Layer::Engine;
  if (name == "queue") {
    layer = Layer::Queue;
  } else if (name == "queue-rename") {
    layer = Layer::QueueRename;
  } else if (name != "engine") {
    return usage();
  }
  auto urls = quill_bench::readLines(argv[2]);
  if (urls.empty()) {
    return usage();
  }
  const auto start = std::chrono::steady_clock::now();
  // On the heap and never freed: a download still in flight when the deadline passes must not
  // find it gone.
  auto* downloads = new Downloads(layer, std::move(urls), argv[3]);
  const bool finished = downloads->run();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const bool ok = finished && downloads->failures() == 0;
  std::printf("{\"ok\":%s,\"seconds\":%.6f,\"files\":%zu,\"failed\":%zu,\"threadCpu\":%s}\n",
              ok ? "true" : "false", seconds, downloads->count(), downloads->failures(),
              quill_bench::threadCpuJson().c_str());
  std::fflush(stdout);
  if (ok) {
    delete downloads;
  }
  return ok ? 0 : 1;
}
