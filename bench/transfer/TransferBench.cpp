// Our side of the comparisons bench/run makes with the standard tools. Each command does one job
// through the exported classes only, as a host application would, and prints one line of JSON with
// what it did ({"ok":true,"seconds":...,...}). Wall time, CPU time and peak memory of the whole
// process are measured from outside by the harness; "seconds" here is the time from handing the
// first request over to the last result, for reference.
//
//   quill-bench-transfer download URL DIRECTORY FILENAME [--progress]
//   quill-bench-transfer upload image|signed FILE
//   quill-bench-transfer many URL_LIST DIRECTORY
//   quill-bench-transfer avatars URL_LIST ROOT
//   quill-bench-transfer scale SOURCE TARGET_DIRECTORY COUNT
//
// Exit status 0 when every transfer succeeded, 1 when one failed, 2 for a usage error.
#include "../common/ThreadCpu.h"
#include "../common/UrlList.h"

#include <quill_base/ImageUtils.h>
#include <quill_base/SerialQueue.h>
#include <quill_cloud/AvatarManager.h>
#include <quill_cloud/CloudStorageRequest.h>
#include <quill_cloud/CloudStorageService.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Counts finished requests and lets the main thread wait for all of them.
class Countdown {
public:
  explicit Countdown(std::size_t count) : left(count) {}

  void arrive(bool success) {
    std::lock_guard<std::mutex> lock(mutex);
    if (!success) {
      ++failures;
    }
    if (left > 0 && --left == 0) {
      done.notify_all();
    }
  }

  // False when the deadline passed first.
  bool wait(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex);
    return done.wait_for(lock, limit, [&] { return left == 0; });
  }

  std::size_t failed() {
    std::lock_guard<std::mutex> lock(mutex);
    return failures;
  }

private:
  std::mutex mutex;
  std::condition_variable done;
  std::size_t left;
  std::size_t failures = 0;
};

// Nothing in the harness runs longer than this; a hang is reported as a failure.
constexpr std::chrono::seconds kDeadline{600};

int report(bool ok, double seconds, const std::string& extra) {
  std::printf("{\"ok\":%s,\"seconds\":%.6f%s}\n", ok ? "true" : "false", seconds, extra.c_str());
  std::fflush(stdout);
  return ok ? 0 : 1;
}

std::shared_ptr<CloudStorageRequest> downloadRequest(const std::string& id, const std::string& url,
                                                     const std::string& directory,
                                                     const std::string& fileName) {
  auto request = std::make_shared<CloudStorageRequest>(false);
  request->kind = CloudStorageKind::kFile;
  request->requestId = id;
  request->url = url;
  request->directory = directory;
  request->fileName = fileName;
  return request;
}

int download(const std::string& url, const std::string& directory, const std::string& fileName,
             bool withProgress) {
  CloudStorageService service(false);
  Countdown countdown(1);
  std::atomic<int> reports{0};
  auto request = downloadRequest("download", url, directory, fileName);
  request->stateCallback = [&](std::shared_ptr<CloudStorageRequest> ended, int) {
    countdown.arrive(ended->resultCode == CloudStorageResult::kSuccess);
  };
  if (withProgress) {
    request->progressCallback = [&](std::shared_ptr<CloudStorageRequest>, int) { ++reports; };
  }
  const auto start = Clock::now();
  service.excuteRequest(request);
  const bool finished = countdown.wait(kDeadline);
  const double seconds = secondsSince(start);
  const bool ok = finished && countdown.failed() == 0;
  if (!ok) {
    std::cerr << "download failed: " << request->resultCode << " " << request->resultMessage
              << "\n";
  }
  std::error_code error;
  const auto bytes = std::filesystem::file_size(directory + "/" + fileName, error);
  return report(ok, seconds,
                ",\"bytes\":" + std::to_string(error ? 0 : bytes) +
                    ",\"progressReports\":" + std::to_string(reports.load()));
}

int upload(const std::string& route, const std::string& file) {
  const std::filesystem::path path(file);
  const auto userDirectory = std::filesystem::temp_directory_path() / "quill-bench-user";
  std::filesystem::create_directories(userDirectory);
  CloudStorageService service(true);
  service.changeUser("bench-app", "bench-pin", userDirectory.string());
  service.changeAid("bench-aid");
  Countdown countdown(1);
  auto request = std::make_shared<CloudStorageRequest>(true);
  request->kind = route == "image" ? 1 : 2;
  request->requestId = "upload";
  request->directory = path.parent_path().string();
  request->fileName = path.filename().string();
  request->stateCallback = [&](std::shared_ptr<CloudStorageRequest> ended, int) {
    countdown.arrive(ended->resultCode == CloudStorageResult::kSuccess);
  };
  const auto start = Clock::now();
  if (!service.excuteRequest(request)) {
    std::cerr << "upload refused\n";
    return 1;
  }
  const bool finished = countdown.wait(kDeadline);
  const double seconds = secondsSince(start);
  const bool ok = finished && countdown.failed() == 0;
  if (!ok) {
    std::cerr << "upload failed: " << request->resultCode << " " << request->resultMessage << "\n";
  }
  std::filesystem::remove_all(userDirectory);
  return report(
      ok, seconds,
      ",\"bytes\":" + std::to_string(request->fileSize) + ",\"url\":\"" + request->url + "\"");
}

// A host signs its user in before it transfers anything: the user directory (with the service's
// cache directory in it) goes beside `directory`, on the same file system.
void signIn(CloudStorageService& service, const std::string& directory) {
  const std::string userDirectory = directory + ".user";
  std::filesystem::create_directories(userDirectory);
  service.changeUser("bench-app", "bench-pin", userDirectory);
}

int many(const std::string& listPath, const std::string& directory) {
  const auto urls = quill_bench::readLines(listPath);
  CloudStorageService service(false);
  signIn(service, directory);
  Countdown countdown(urls.size());
  std::vector<std::shared_ptr<CloudStorageRequest>> requests;
  requests.reserve(urls.size());
  for (std::size_t i = 0; i < urls.size(); ++i) {
    auto request = downloadRequest("f" + std::to_string(i), urls[i], directory,
                                   std::filesystem::path(urls[i]).filename().string());
    request->stateCallback = [&](std::shared_ptr<CloudStorageRequest> ended, int) {
      countdown.arrive(ended->resultCode == CloudStorageResult::kSuccess);
    };
    requests.push_back(std::move(request));
  }
  const auto start = Clock::now();
  for (const auto& request : requests) {
    service.excuteRequest(request);
  }
  const bool finished = countdown.wait(kDeadline);
  const double seconds = secondsSince(start);
  const auto failures = countdown.failed();
  return report(finished && failures == 0, seconds,
                ",\"files\":" + std::to_string(urls.size()) + ",\"failed\":" +
                    std::to_string(failures) + ",\"threadCpu\":" + quill_bench::threadCpuJson());
}

class AvatarCounter : public IAvatarManagerListener {
public:
  explicit AvatarCounter(Countdown& countdown) : countdown(countdown) {}
  void avatarDownloaded(const std::string&) override { countdown.arrive(true); }

private:
  Countdown& countdown;
};

int avatars(const std::string& listPath, const std::string& root) {
  const auto urls = quill_bench::readLines(listPath);
  auto queue = std::make_shared<SerialQueue>("bench-avatars");
  auto service = std::make_shared<CloudStorageService>(false);
  signIn(*service, root);
  Countdown countdown(urls.size());
  AvatarCounter counter(countdown);
  std::size_t ready = 0;
  bool finished = false;
  double seconds = 0;
  {
    auto manager = std::make_shared<AvatarManager>(queue, service);
    manager->addListener(&counter);
    if (!manager->createAvatarPath(root, "bench-user")) {
      std::cerr << "cannot make the avatar directories below " << root << "\n";
      return 1;
    }
    const auto start = Clock::now();
    for (std::size_t i = 0; i < urls.size(); ++i) {
      // Nothing is cached yet: every call starts a download, and the listener hears of each.
      if (!manager->downloadAvatar("a" + std::to_string(i), urls[i]).empty()) {
        countdown.arrive(true);
      }
    }
    // Failures are not reported to the listener: a failed avatar shows as a timeout.
    finished = countdown.wait(kDeadline);
    seconds = secondsSince(start);
    for (const auto& url : urls) {
      std::error_code error;
      if (std::filesystem::exists(manager->avatarPath(url), error)) {
        ++ready;
      }
    }
  }
  return report(
      finished && ready == urls.size(), seconds,
      ",\"files\":" + std::to_string(urls.size()) + ",\"scaled\":" + std::to_string(ready));
}

// Scales SOURCE to 200 px COUNT times, each into a fresh target. The first call pays for starting
// libvips; it is reported apart, and "seconds" is the median of the others.
int scale(const std::string& source, const std::string& directory, int count) {
  std::vector<double> times;
  bool ok = true;
  double first = 0;
  for (int i = 0; i <= count && ok; ++i) {
    const std::string target = directory + "/scaled-" + std::to_string(i) + ".jpg";
    const auto start = Clock::now();
    ok = ImageUtils::scaleImage(200, source, target);
    const double seconds = secondsSince(start);
    if (i == 0) {
      first = seconds;
    } else {
      times.push_back(seconds);
    }
  }
  std::sort(times.begin(), times.end());
  const double median = times.empty() ? first : times[times.size() / 2];
  std::string all;
  for (double t : times) {
    all += (all.empty() ? "" : ",") + std::to_string(t);
  }
  return report(ok, median, ",\"first\":" + std::to_string(first) + ",\"all\":[" + all + "]");
}

int usage() {
  std::cerr << "usage: quill-bench-transfer download URL DIRECTORY FILENAME [--progress]\n"
               "       quill-bench-transfer upload image|signed FILE\n"
               "       quill-bench-transfer many URL_LIST DIRECTORY\n"
               "       quill-bench-transfer avatars URL_LIST ROOT\n"
               "       quill-bench-transfer scale SOURCE TARGET_DIRECTORY COUNT\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    return usage();
  }
  const std::string& command = args[0];
  if (command == "download" && (args.size() == 4 || args.size() == 5)) {
    return download(args[1], args[2], args[3], args.size() == 5 && args[4] == "--progress");
  }
  if (command == "upload" && args.size() == 3 && (args[1] == "image" || args[1] == "signed")) {
    return upload(args[1], args[2]);
  }
  if (command == "many" && args.size() == 3) {
    return many(args[1], args[2]);
  }
  if (command == "avatars" && args.size() == 3) {
    return avatars(args[1], args[2]);
  }
  if (command == "scale" && args.size() == 4) {
    return scale(args[1], args[2], std::max(1, std::stoi(args[3])));
  }
  return usage();
}
