// The service and the avatar manager destroyed at random moments of a busy run: downloads, uploads,
// avatar downloads and an avatar upload in flight, some of them slowed by the server. No crash, no
// hang, and no callback once destruction has returned (for the manager: once its queue has run
// what was already on it).
//
// QUILL_LIFETIME_ROUNDS sets the number of rounds (the full run is 100), QUILL_LIFETIME_SEED the
// random seed.

#include "../e2e/CloudEnvironment.h"
#include "StressSupport.h"

#include <gtest/gtest.h>

#include <quill_base/SerialQueue.h>
#include <quill_cloud/AvatarManager.h>
#include <quill_cloud/CloudStorageService.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

namespace quill_test {
namespace {

// A 12x7 PNG: small enough to be quick, real enough to be scaled.
const unsigned char kPng[] = {
    0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d, 0x49, 0x48, 0x44, 0x52,
    0x00, 0x00, 0x00, 0x0c, 0x00, 0x00, 0x00, 0x07, 0x10, 0x02, 0x00, 0x00, 0x00, 0xe3, 0x40, 0xe7,
    0x30, 0x00, 0x00, 0x00, 0x09, 0x70, 0x48, 0x59, 0x73, 0x00, 0x00, 0x03, 0xe8, 0x00, 0x00, 0x03,
    0xe8, 0x01, 0xb5, 0x7b, 0x52, 0x6b, 0x00, 0x00, 0x00, 0x12, 0x49, 0x44, 0x41, 0x54, 0x18, 0x95,
    0x63, 0xf8, 0x4f, 0x25, 0xc0, 0x30, 0x6a, 0xd0, 0x10, 0x34, 0x08, 0x00, 0x2c, 0x56, 0xf6, 0x18,
    0x36, 0x18, 0x18, 0x56, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};

// What the callbacks of one round saw. Shared with every callback, so it outlives them all.
struct Round {
  std::atomic<bool> serviceGone{false};
  std::atomic<bool> managerGone{false};
  std::atomic<int> lateServiceCallbacks{0};
  std::atomic<int> lateManagerCallbacks{0};
  std::atomic<int> callbacks{0};
};

class Listener : public IAvatarManagerListener {
public:
  explicit Listener(std::shared_ptr<Round> round) : round(std::move(round)) {}
  void avatarDownloaded(const std::string&) override {
    ++round->callbacks;
    if (round->managerGone) {
      ++round->lateManagerCallbacks;
    }
  }

private:
  std::shared_ptr<Round> round;
};

// Aborts the program when a round does not finish in time: a hang must not wait for ctest.
class Watchdog {
public:
  explicit Watchdog(std::chrono::seconds limit)
      : thread([this, limit] {
          std::unique_lock<std::mutex> lock(mutex);
          if (!changed.wait_for(lock, limit, [&] { return done; })) {
            std::fprintf(stderr, "lifetime round hung for %lld s\n",
                         static_cast<long long>(limit.count()));
            std::abort();
          }
        }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      done = true;
      changed.notify_all();
    }
    thread.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

private:
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;
  std::thread thread;
};

TEST(Lifetime, ServiceAndAvatarManagerDestroyedAtRandomMomentsOfABusyRun) {
#ifdef QUILL_SANITIZER_BUILD
  const int rounds = sizeFromEnvironment("QUILL_LIFETIME_ROUNDS", 25);
#else
  const int rounds = sizeFromEnvironment("QUILL_LIFETIME_ROUNDS", 100);
#endif
  unsigned seed = static_cast<unsigned>(sizeFromEnvironment("QUILL_LIFETIME_SEED", 0));
  if (seed == 0) {
    seed = std::random_device{}();
  }
  std::printf("lifetime seed %u (QUILL_LIFETIME_SEED), %d rounds\n", seed, rounds);
  std::mt19937 random(seed);

  TempDir files;
  const auto image = files.file("avatar.png");
  std::ofstream(image, std::ios::binary).write(reinterpret_cast<const char*>(kPng), sizeof kPng);
  auto& server = CloudEnvironment::server();
  const auto imagePath = server.addFile("lifetime-avatar.png", image);
  const auto bigPath =
      server.addFile("lifetime-big.bin", writePattern(files.file("big.bin"), 256 * 1024));
  writePattern(files.file("upload.pdf"), 64 * 1024, 3);
  writePattern(files.file("upload.mov"), 64 * 1024, 4);

  // The listeners are never destroyed before the end: a manager must not call one once it is gone,
  // but a broken one would then call into freed memory instead of being counted.
  std::vector<std::unique_ptr<Listener>> listeners;
  std::vector<std::shared_ptr<Round>> seen;
  int totalCallbacks = 0;
  const auto started = std::chrono::steady_clock::now();

  for (int r = 0; r < rounds; ++r) {
    Watchdog watchdog(std::chrono::seconds(60));
    auto round = std::make_shared<Round>();
    seen.push_back(round);
    TempDir user;
    TempDir downloads;

    auto service = std::make_shared<CloudStorageService>(true);
    service->changeUser("life-app", "life-pin", user.path());
    service->changeAid("life-aid");
    auto queue = std::make_shared<SerialQueue>("avatar lifetime");
    auto manager = std::make_shared<AvatarManager>(queue, service);
    listeners.push_back(std::make_unique<Listener>(round));
    manager->addListener(listeners.back().get());
    ASSERT_TRUE(manager->createAvatarPath(user.path(), "someone"));

    const auto onEnd = [round](std::shared_ptr<CloudStorageRequest>, int) {
      ++round->callbacks;
      if (round->serviceGone) {
        ++round->lateServiceCallbacks;
      }
    };
    for (int i = 0; i < 8; ++i) {
      auto request = std::make_shared<CloudStorageRequest>(i >= 5);
      request->requestId = "life-" + std::to_string(r) + "-" + std::to_string(i);
      request->stateCallback = onEnd;
      request->progressCallback = onEnd;
      if (i < 5) {
        request->kind = 1 + i % 2;
        // Some fast, some slowed down so that they are mid-body when the end comes.
        request->url = CloudEnvironment::url(bigPath) +
                       (i % 2 == 0 ? "?quill_rate=" + std::to_string(200000 + random() % 800000)
                                   : std::string());
        request->directory = downloads.path();
        request->fileName = "d" + std::to_string(i);
      } else {
        request->kind = i - 4;  // image, file, video
        request->directory = files.path();
        request->fileName = i == 5 ? "avatar.png" : i == 6 ? "upload.pdf" : "upload.mov";
      }
      ASSERT_TRUE(service->excuteRequest(request));
    }
    for (int i = 0; i < 2; ++i) {
      manager->downloadAvatar("who-" + std::to_string(i), CloudEnvironment::url(imagePath) +
                                                              "?round=" + std::to_string(r) +
                                                              "&i=" + std::to_string(i));
    }
    manager->uploadAvatarImage(image, [round](const std::string&) {
      ++round->callbacks;
      if (round->managerGone) {
        ++round->lateManagerCallbacks;
      }
    });
    if (r % 10 == 3) {
      service->cancelAllReqest();
    }

    // The random moment: anywhere from at once to well into the transfers.
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 250));
    const bool serviceFirst = random() % 2 == 0;
    // The manager holds the service too: the service is gone when its last owner let go, which
    // may be the manager's destruction.
    std::weak_ptr<CloudStorageService> weakService = service;
    // A closure of the service's queue that was running when the manager was let go (a request's
    // stateCallback holds the manager while it runs) releases the manager, and with it the
    // service, when it returns: the service is gone once it has.
    auto noteServiceGone = [&] {
      const bool lastOwnerGone = !service && !manager;
      if (lastOwnerGone ? quill_test::eventually([&] { return weakService.expired(); },
                                                 std::chrono::seconds(10))
                        : weakService.expired()) {
        round->serviceGone = true;
      }
    };
    auto dropService = [&] {
      service.reset();
      noteServiceGone();
    };
    auto dropManager = [&] {
      manager.reset();
      // What the manager's queue already held may still run; after that, nothing may.
      EventCounter drained;
      queue->dispatch([&] { drained.add(); });
      ASSERT_TRUE(drained.waitFor(1, std::chrono::seconds(30)));
      round->managerGone = true;
      noteServiceGone();
    };
    if (serviceFirst) {
      dropService();
      dropManager();
    } else {
      dropManager();
      dropService();
    }
    queue.reset();
    EXPECT_TRUE(round->serviceGone) << "round " << r << ": the service outlived its owners";
    totalCallbacks += round->callbacks;
  }

  // Give any straggler the chance to show itself before the counts are read: the network engine
  // finishes the abandoned transfers on its own.
  EXPECT_TRUE(eventually([&] { return server.requestCount() > 0; }));
  for (std::size_t r = 0; r < seen.size(); ++r) {
    EXPECT_EQ(seen[r]->lateServiceCallbacks.load(), 0) << "round " << r;
    EXPECT_EQ(seen[r]->lateManagerCallbacks.load(), 0) << "round " << r;
  }
  const auto elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::printf("lifetime: %d rounds in %.1f s, %d callbacks before destruction\n", rounds, elapsed,
              totalCallbacks);
}

}  // namespace
}  // namespace quill_test
