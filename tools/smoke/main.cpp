// quill-base-smoke: exercises the base library end to end on this machine and prints what it saw.
// Exits 0 only when every step worked.
#include <quill_base/FileUtils.h>
#include <quill_base/ImageUtils.h>
#include <quill_base/JSONUtils.h>
#include <quill_base/Logger.h>
#include <quill_base/SerialQueue.h>
#include <quill_base/TextUtils.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>

namespace {

int failures = 0;

void report(bool ok, const std::string& step, const std::string& detail) {
  std::printf("%-6s %-28s %s\n", ok ? "ok" : "FAILED", step.c_str(), detail.c_str());
  if (!ok) {
    ++failures;
  }
}

// A 640x480 colour gradient in the simplest image format there is (binary PPM).
void writeGradient(const std::string& path) {
  std::ofstream out(path, std::ios::binary);
  out << "P6\n640 480\n255\n";
  for (int y = 0; y < 480; ++y) {
    for (int x = 0; x < 640; ++x) {
      const char pixel[3] = {static_cast<char>(x * 255 / 639), static_cast<char>(y * 255 / 479),
                             static_cast<char>(128)};
      out.write(pixel, 3);
    }
  }
}

}  // namespace

int main() {
  const auto root =
      std::filesystem::temp_directory_path() / ("quill-smoke-" + TextUtils::UUID_String());
  const std::string work = root.string();

  // Serial queue: closures in order, then a timer that ticks three times and stops itself.
  {
    SerialQueue queue("smoke");
    std::mutex mutex;
    std::condition_variable changed;
    std::string order;
    int ticks = 0;
    for (char c : std::string("abcde")) {
      queue.dispatch([&, c] {
        std::lock_guard<std::mutex> lock(mutex);
        order.push_back(c);
      });
    }
    const auto started = std::chrono::steady_clock::now();
    queue.startTimer(20, [&](SerialQueue::TimerId id) {
      std::lock_guard<std::mutex> lock(mutex);
      if (++ticks == 3) {
        queue.stopTimer(id);
      }
      changed.notify_all();
    });
    std::unique_lock<std::mutex> lock(mutex);
    const bool ticked = changed.wait_for(lock, std::chrono::seconds(5), [&] { return ticks == 3; });
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - started)
                        .count();
    report(order == "abcde", "queue order", order);
    report(ticked, "timer ticks",
           std::to_string(ticks) + " ticks of 20 ms in " + std::to_string(ms) + " ms");
  }

  // Files: nested directories, a move over an existing file, a byte budget.
  const auto nested = FileUtils::appendComponent(work, "user/cloud_storage_caches");
  report(FileUtils::makeDirectory(nested), "makeDirectory", nested);
  const auto a = FileUtils::appendComponent(nested, "a.txt");
  const auto b = FileUtils::appendComponent(nested, "b.txt");
  std::ofstream(a) << "hello";
  std::ofstream(b) << "old";
  report(FileUtils::moveFile(a, b) && FileUtils::fileSize(b) == 5, "moveFile",
         "a.txt -> b.txt, 5 bytes");
  report(FileUtils::removeFiles(nested, 0) && !FileUtils::fileExists(b), "removeFiles", "budget 0");

  // Text and JSON.
  const auto hash = TextUtils::hashString("abc");
  report(hash == "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", "hashString",
         hash);
  const auto uuid = TextUtils::UUID_String();
  report(uuid.size() == 36 && uuid[14] == '4', "UUID_String", uuid);
  Json::Value reply;
  const bool parsed = JSONUtils::parseJSON(R"({"code":0,"path":"//host/files/key.png"})", reply);
  report(parsed && JSONUtils::optInt("code", reply, -1) == 0 &&
             JSONUtils::optString("path", reply, "") == "//host/files/key.png",
         "parseJSON", JSONUtils::optString("path", reply, "(none)"));

  // Images: a 640x480 picture scaled to fit 200x200.
  const auto source = FileUtils::appendComponent(work, "gradient.ppm");
  const auto target = FileUtils::appendComponent(work, "avatar.jpg");
  writeGradient(source);
  const bool scaled = ImageUtils::scaleImage(200, source, target);
  report(scaled && FileUtils::fileSize(target) > 0, "scaleImage",
         "640x480 -> " + target + " (" + std::to_string(FileUtils::fileSize(target)) + " bytes)");

  QLOG_INFO("smoke run finished with " << failures << " failure(s)");
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  std::printf("%s\n", failures == 0 ? "all steps passed" : "some steps failed");
  return failures == 0 ? 0 : 1;
}
