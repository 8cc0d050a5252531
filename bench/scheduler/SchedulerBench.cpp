// The scheduler's cost per request: N downloads handed to CloudStorageService at once, each ended
// by an engine that answers at once (404, so that no file is written), until every stateCallback
// has been called. Reported as microseconds per request; the cost must not grow with N.
#include <quill_cloud/CloudStorageService.h>
#include <quill_network/detail/HttpTransport.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace {

// Ends every transfer with a 404 from its own thread, as a network thread would.
class AnsweringTransport : public quill_network_detail::HttpTransport {
public:
  AnsweringTransport() : worker([this] { run(); }) {}
  ~AnsweringTransport() override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
    }
    wake.notify_one();
    worker.join();
  }

  void start(const std::string&, quill_network_detail::TransferSpec spec) override {
    std::lock_guard<std::mutex> lock(mutex);
    pending.push_back(std::move(spec.completion));
    wake.notify_one();
  }
  void cancel(const std::string&) override {}

private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex);
    while (true) {
      wake.wait(lock, [&] { return stopping || !pending.empty(); });
      if (pending.empty()) {
        return;
      }
      auto batch = std::move(pending);
      pending.clear();
      lock.unlock();
      for (auto& completion : batch) {
        auto response = std::make_shared<HttpResponse>();
        response->outcome = HttpResponse::kFailed;
        response->status = 404;
        completion(response);
      }
      lock.lock();
    }
  }

  std::mutex mutex;
  std::condition_variable wake;
  std::deque<HttpClient::CompletionFunction> pending;
  bool stopping = false;
  std::thread worker;
};

void scheduleDownloads(benchmark::State& state) {
  const auto count = static_cast<int>(state.range(0));
  const auto directory = std::filesystem::temp_directory_path().string();
  auto transport = std::make_shared<AnsweringTransport>();
  auto previous = quill_network_detail::installTransport(transport);

  std::chrono::steady_clock::duration elapsed{};
  for (auto _ : state) {
    const auto started = std::chrono::steady_clock::now();
    CloudStorageService service(false);
    std::mutex mutex;
    std::condition_variable done;
    int ended = 0;
    auto onEnd = [&](std::shared_ptr<CloudStorageRequest>, int) {
      std::lock_guard<std::mutex> lock(mutex);
      if (++ended == count) {
        done.notify_one();
      }
    };
    for (int i = 0; i < count; ++i) {
      auto request = std::make_shared<CloudStorageRequest>(false);
      request->kind = CloudStorageKind::kFile;
      request->requestId = std::to_string(i);
      request->url = "https://files.bench/" + std::to_string(i);
      request->directory = directory;
      request->fileName = "quill-bench-" + std::to_string(i);
      request->stateCallback = onEnd;
      service.excuteRequest(request);
    }
    std::unique_lock<std::mutex> lock(mutex);
    done.wait(lock, [&] { return ended == count; });
    elapsed += std::chrono::steady_clock::now() - started;
  }

  quill_network_detail::installTransport(previous);
  const double microseconds = std::chrono::duration<double, std::micro>(elapsed).count();
  state.counters["us_per_request"] =
      microseconds / (static_cast<double>(count) * static_cast<double>(state.iterations()));
}

}  // namespace

BENCHMARK(scheduleDownloads)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

BENCHMARK_MAIN();
