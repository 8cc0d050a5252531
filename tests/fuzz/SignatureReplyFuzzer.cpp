// The reply to the file signature request ({"code","desc","uploadPath","path"}), fed to a real
// upload task; an accepted reply must lead to the object-storage upload, which is then completed.

#include "SignatureRouteFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const quill_fuzz::SignatureRoute route{
      2,
      "report.pdf",
      [](const quill_fuzz::UploadFuzzHarness::End& end) { return !end.message.empty(); },
      "a refused reply ends with -100 and a message, and uploads nothing",
      [](const quill_fuzz::RecordingTransport::Call& call) {
        return call.spec.kind == quill_network_detail::TransferSpec::Kind::PutFile &&
               !call.spec.url.empty();
      },
      "an accepted reply starts the object-storage upload to its uploadPath"};
  return quill_fuzz::fuzzSignatureReply(route, data, size);
}
