#pragma once

#include "UploadFuzzHarness.h"

#include <functional>
#include <string>

namespace quill_fuzz {

// What is particular to one of the two routes that start with a signature request: the task type
// and file sent, which refusals of the reply are allowed, and what an accepted reply must start.
struct SignatureRoute {
  int taskType;
  const char* fileName;
  std::function<bool(const UploadFuzzHarness::End&)> refusalIsValid;
  const char* refusal;
  std::function<bool(const RecordingTransport::Call&)> uploadIsValid;
  const char* upload;
};

// Feeds the bytes to a real upload task as the reply to its signature request and checks how the
// task ends; an accepted reply must start the route's upload, which is then completed.
inline int fuzzSignatureReply(const SignatureRoute& route, const std::uint8_t* data,
                              std::size_t size) {
  using Kind = quill_network_detail::TransferSpec::Kind;
  auto& harness = UploadFuzzHarness::instance();
  auto calls = harness.start(route.taskType, route.fileName);
  check(calls.size() == 1 && calls[0].spec.kind == Kind::FormPost, "one signature request");

  const auto response = responseFrom(data, size);
  calls[0].spec.completion(response);
  harness.onQueue([] {});
  auto end = harness.ended();
  auto upload = harness.laterCalls();
  if (response->outcome == HttpResponse::kCancelled) {
    check(end.count == 1 && end.code == CloudStorageResult::kCancelled,
          "a cancelled signature request ends with 3");
  } else if (response->outcome != HttpResponse::kCompleted) {
    check(end.count == 1 && end.code == CloudStorageResult::kTransferFailed &&
              end.message == "request signature failed, " + std::to_string(response->status),
          "a failed signature request ends with -100 and the status");
  } else if (end.count == 1) {
    check(end.code == CloudStorageResult::kTransferFailed && route.refusalIsValid(end) &&
              upload.empty(),
          route.refusal);
  } else {
    check(end.count == 0 && upload.size() == 1 && route.uploadIsValid(upload[0]), route.upload);
    auto done = std::make_shared<HttpResponse>();
    done->outcome = HttpResponse::kCompleted;
    done->status = 200;
    upload[0].spec.completion(done);
    harness.onQueue([] {});
    end = harness.ended();
    check(end.count == 1 && end.code == CloudStorageResult::kSuccess && hasScheme(end.url),
          "the upload ends with 2 and the reply's address with a scheme");
  }
  harness.release();
  return 0;
}

}  // namespace quill_fuzz
