#pragma once

// Helpers of the network tests: recording what a transfer reports, files of known bytes, the
// environment, and the process's peak memory.

#include <quill_network/HttpClient.h>

#include "Environment.h"
#include "ProcessMemory.h"
#include "Recorder.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quill_test {

// Everything one transfer reported. The functions it hands out hold its records by shared pointer,
// so a test that gives up waiting never leaves the engine calling into freed memory.
class TransferRecord {
public:
  static std::shared_ptr<TransferRecord> make() { return std::make_shared<TransferRecord>(); }

  HttpClient::CompletionFunction completion() {
    auto record = completions;
    return [record](std::shared_ptr<HttpResponse> response) {
      record->record({std::move(response), std::this_thread::get_id()});
    };
  }

  HttpClient::ProgressFunction progress() {
    auto record = reports;
    return [record](double done, double total) {
      record->record({{done, total}, std::this_thread::get_id()});
    };
  }

  // The first completion, or null when none came in time.
  std::shared_ptr<HttpResponse> wait(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    if (!completions->waitFor(1, timeout)) {
      return nullptr;
    }
    return completions->first().response;
  }

  int completionCount() const { return completions->count(); }

  std::vector<std::pair<double, double>> progressReports() const {
    std::vector<std::pair<double, double>> all;
    for (const auto& report : reports->all()) {
      all.push_back(report.doneAndTotal);
    }
    return all;
  }
  // The threads of the completions, then those of the progress reports.
  std::vector<std::thread::id> threads() const {
    std::vector<std::thread::id> all;
    for (const auto& completion : completions->all()) {
      all.push_back(completion.thread);
    }
    for (const auto& report : reports->all()) {
      all.push_back(report.thread);
    }
    return all;
  }

private:
  struct Completion {
    std::shared_ptr<HttpResponse> response;
    std::thread::id thread;
  };
  struct Report {
    std::pair<double, double> doneAndTotal;
    std::thread::id thread;
  };
  std::shared_ptr<Recorder<Completion>> completions = std::make_shared<Recorder<Completion>>();
  std::shared_ptr<Recorder<Report>> reports = std::make_shared<Recorder<Report>>();
};

// A transfer to a port nothing listens on: it ends at once, with a failure. The engine runs
// everything on one thread in order, so when this one has completed, every completion the engine
// was about to make before it has been made too.
inline std::string refusedUrl() {
  return "http://127.0.0.1:1/nothing-listens-here";
}

inline void drainEngine() {
  auto fence = TransferRecord::make();
  HttpClient::executePost(refusedUrl(), {}, nullptr, fence->completion());
  ASSERT_NE(fence->wait(), nullptr) << "the engine stopped completing transfers";
}

// Holds the engine's network thread inside a completion function from construction until release()
// (or destruction), so that transfers started and cancelled meanwhile reach the engine together:
// a cancel then meets its transfer before libcurl ever saw it.
class NetworkThreadHold {
public:
  NetworkThreadHold() : state(std::make_shared<State>()) {
    auto shared = state;
    HttpClient::executePost(refusedUrl(), {}, nullptr, [shared](std::shared_ptr<HttpResponse>) {
      std::unique_lock<std::mutex> lock(shared->mutex);
      shared->entered = true;
      shared->changed.notify_all();
      // Bounded, so that a failing test cannot hold the engine for good.
      shared->changed.wait_for(lock, std::chrono::seconds(20), [&] { return shared->released; });
    });
    std::unique_lock<std::mutex> lock(state->mutex);
    holding =
        state->changed.wait_for(lock, std::chrono::seconds(10), [&] { return state->entered; });
  }
  ~NetworkThreadHold() { release(); }
  NetworkThreadHold(const NetworkThreadHold&) = delete;
  NetworkThreadHold& operator=(const NetworkThreadHold&) = delete;

  // False when the network thread never came in.
  bool held() const { return holding; }
  void release() {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->released = true;
    state->changed.notify_all();
  }

private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool released = false;
  };
  std::shared_ptr<State> state;
  bool holding = false;
};

// Sets (or, with nullopt, removes) an environment variable for the life of the object.
class ScopedEnv {
public:
  ScopedEnv(std::string name, const std::optional<std::string>& value) : name(std::move(name)) {
    if (const char* old = std::getenv(this->name.c_str())) {
      previous = old;
    }
    apply(value);
  }
  ~ScopedEnv() { apply(previous); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
  void apply(const std::optional<std::string>& value) {
    if (value) {
      quill_test::setEnvironment(name.c_str(), value->c_str());
    } else {
      quill_test::unsetEnvironment(name.c_str());
    }
  }
  std::string name;
  std::optional<std::string> previous;
};

// Byte `index` of the test pattern: not periodic over short spans, so a shifted, lost or repeated
// chunk shows up in a comparison.
inline char patternByte(std::uint64_t index) {
  std::uint64_t x = index * 0x9E3779B97F4A7C15ull;
  x ^= x >> 29;
  return static_cast<char>(x & 0xff);
}

// Writes `size` pattern bytes into a new file, a chunk at a time.
inline void writePatternFile(const std::string& path, std::uint64_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::vector<char> chunk(1 << 20);
  for (std::uint64_t offset = 0; offset < size;) {
    const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), size - offset));
    for (std::size_t i = 0; i < n; ++i) {
      chunk[i] = patternByte(offset + i);
    }
    out.write(chunk.data(), static_cast<std::streamsize>(n));
    offset += n;
  }
}

// True when the file holds exactly `size` pattern bytes; the first mismatch goes to the test log.
inline bool holdsPattern(const std::string& path, std::uint64_t size) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    ADD_FAILURE() << "cannot open " << path;
    return false;
  }
  std::vector<char> chunk(1 << 20);
  std::uint64_t offset = 0;
  while (in) {
    in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    const auto n = static_cast<std::size_t>(in.gcount());
    for (std::size_t i = 0; i < n; ++i) {
      if (chunk[i] != patternByte(offset + i)) {
        ADD_FAILURE() << path << " differs at byte " << offset + i;
        return false;
      }
    }
    offset += n;
  }
  if (offset != size) {
    ADD_FAILURE() << path << " holds " << offset << " bytes, expected " << size;
    return false;
  }
  return true;
}

inline std::string readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void writeWholeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

// True for an HTTP/1.1 status line of that status: "HTTP/1.1 404" or "HTTP/1.1 404 Not Found".
inline bool isStatusLine(const std::string& text, int status) {
  const std::string start = "HTTP/1.1 " + std::to_string(status);
  return text.rfind(start, 0) == 0 && (text.size() == start.size() || text[start.size()] == ' ');
}

// Checks the progress reports of a finished transfer: never backwards, and ending at the total.
inline void expectProgressEndsAtTotal(const std::vector<std::pair<double, double>>& reports,
                                      double total) {
  ASSERT_FALSE(reports.empty()) << "no progress was reported";
  for (std::size_t i = 1; i < reports.size(); ++i) {
    EXPECT_GE(reports[i].first, reports[i - 1].first) << "progress went backwards at report " << i;
  }
  EXPECT_DOUBLE_EQ(reports.back().first, total);
  EXPECT_DOUBLE_EQ(reports.back().second, total);
  for (const auto& [done, reportedTotal] : reports) {
    EXPECT_LE(done, total);
    if (reportedTotal > 0) {
      EXPECT_DOUBLE_EQ(reportedTotal, total);
    }
  }
}

}  // namespace quill_test
