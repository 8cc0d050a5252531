// The reply to the file signature request ({"code","desc","uploadPath","path"}), fed to a real
// upload task; an accepted reply must lead to the object-storage upload, which is then completed.

#include "UploadFuzzHarness.h"

using quill_fuzz::check;
using Kind = quill_network_detail::TransferSpec::Kind;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& harness = quill_fuzz::UploadFuzzHarness::instance();
  auto calls = harness.start(2, "report.pdf");
  check(calls.size() == 1 && calls[0].spec.kind == Kind::FormPost, "one signature request");

  const auto response = quill_fuzz::responseFrom(data, size);
  calls[0].spec.completion(response);
  harness.onQueue([] {});
  auto end = harness.ended();
  auto upload = harness.laterCalls();
  if (response->outcome == HttpResponse::kCancelled) {
    check(end.count == 1 && end.code == 3, "a cancelled signature request ends with 3");
  } else if (response->outcome != HttpResponse::kCompleted) {
    check(end.count == 1 && end.code == -100 &&
              end.message == "request signature failed, " + std::to_string(response->status),
          "a failed signature request ends with -100 and the status");
  } else if (end.count == 1) {
    check(end.code == -100 && !end.message.empty() && upload.empty(),
          "a refused reply ends with -100 and a message, and uploads nothing");
  } else {
    check(end.count == 0 && upload.size() == 1 && upload[0].spec.kind == Kind::PutFile &&
              !upload[0].spec.url.empty(),
          "an accepted reply starts the object-storage upload to its uploadPath");
    auto done = std::make_shared<HttpResponse>();
    done->outcome = HttpResponse::kCompleted;
    done->status = 200;
    upload[0].spec.completion(done);
    harness.onQueue([] {});
    end = harness.ended();
    check(end.count == 1 && end.code == 2 && quill_fuzz::hasScheme(end.url),
          "the upload ends with 2 and the reply's path with a scheme");
  }
  harness.release();
  return 0;
}
