// Linked into quill_network_testing only: the form encoding and the Content-Range parser, for the
// project's tests.
#include <quill_network/detail/HttpTransport.h>

namespace quill_network_detail {
namespace testing {

std::string encodeForm(const std::map<std::string, std::string>& form) {
  return quill_network_detail::encodeForm(form);
}

bool parseContentRange(const std::string& value, ContentRange& range) {
  return quill_network_detail::parseContentRange(value, range);
}

}  // namespace testing
}  // namespace quill_network_detail
