// The reply to the video signature request ({"uploadUrl","payUrl"}), fed to a real upload task; an
// accepted reply must lead to the one-part video upload, which is then completed.

#include "UploadFuzzHarness.h"

using quill_fuzz::check;
using Kind = quill_network_detail::TransferSpec::Kind;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& harness = quill_fuzz::UploadFuzzHarness::instance();
  auto calls = harness.start(5, "clip.mov");
  check(calls.size() == 1 && calls[0].spec.kind == Kind::FormPost, "one video signature request");

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
    check(end.code == -100 &&
              (end.message == "parse signature response failed" ||
               end.message == "signature response data invaild") &&
              upload.empty(),
          "a refused video reply ends with -100 and uploads nothing");
  } else {
    check(end.count == 0 && upload.size() == 1 && upload[0].spec.kind == Kind::MultipartPost &&
              !upload[0].spec.url.empty() && upload[0].spec.parts.size() == 1 &&
              upload[0].spec.parts[0].name == "clip.mov" &&
              upload[0].spec.parts[0].contentType == "video/mp4",
          "an accepted reply starts the one-part video upload to its uploadUrl");
    auto done = std::make_shared<HttpResponse>();
    done->outcome = HttpResponse::kCompleted;
    done->status = 200;
    upload[0].spec.completion(done);
    harness.onQueue([] {});
    end = harness.ended();
    check(end.count == 1 && end.code == 2 && quill_fuzz::hasScheme(end.url),
          "the upload ends with 2 and the reply's payUrl with a scheme");
  }
  harness.release();
  return 0;
}
