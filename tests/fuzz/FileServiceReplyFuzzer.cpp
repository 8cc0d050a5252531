// The reply of the file-service upload (a multipart POST answered with {"code","msg","path"}), fed
// to a real upload task as if the network thread delivered it.

#include "UploadFuzzHarness.h"

using quill_fuzz::check;
using Kind = quill_network_detail::TransferSpec::Kind;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& harness = quill_fuzz::UploadFuzzHarness::instance();
  auto calls = harness.start(CloudStorageTaskType::kImageUpload, "photo.png");
  check(calls.size() == 1 && calls[0].spec.kind == Kind::MultipartPost, "one multipart upload");

  const auto response = quill_fuzz::responseFrom(data, size);
  calls[0].spec.completion(response);
  harness.onQueue([] {});
  const auto end = harness.ended();
  check(end.count == 1, "the task ends exactly once");
  switch (response->outcome) {
    case HttpResponse::kCompleted:
      check(end.code == CloudStorageResult::kSuccess ||
                end.code == CloudStorageResult::kTransferFailed,
            "a reply ends with 2 or -100");
      if (end.code == CloudStorageResult::kSuccess) {
        check(quill_fuzz::hasScheme(end.url), "a stored path is reported with a scheme");
        check(end.message.empty(), "a success carries no message");
      } else {
        check(end.url.empty(), "a failure reports no url");
      }
      break;
    case HttpResponse::kCancelled:
      check(end.code == CloudStorageResult::kCancelled && end.message.empty() && end.url.empty(),
            "a cancel ends with 3");
      break;
    default:
      check(end.code == CloudStorageResult::kTransferFailed && end.message == response->text &&
                end.url.empty(),
            "a failed transfer ends with -100 and its description");
  }
  check(harness.laterCalls().empty(), "nothing else is sent");
  harness.release();
  return 0;
}
