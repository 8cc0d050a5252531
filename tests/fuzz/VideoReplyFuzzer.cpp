// The reply to the video signature request ({"uploadUrl","payUrl"}), fed to a real upload task; an
// accepted reply must lead to the one-part video upload, which is then completed.

#include "SignatureRouteFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const quill_fuzz::SignatureRoute route{
      5,
      "clip.mov",
      [](const quill_fuzz::UploadFuzzHarness::End& end) {
        return end.message == "parse signature response failed" ||
               end.message == "signature response data invaild";
      },
      "a refused video reply ends with -100 and uploads nothing",
      [](const quill_fuzz::RecordingTransport::Call& call) {
        return call.spec.kind == quill_network_detail::TransferSpec::Kind::MultipartPost &&
               !call.spec.url.empty() && call.spec.parts.size() == 1 &&
               call.spec.parts[0].name == "clip.mov" &&
               call.spec.parts[0].contentType == "video/mp4";
      },
      "an accepted reply starts the one-part video upload to its uploadUrl"};
  return quill_fuzz::fuzzSignatureReply(route, data, size);
}
