#include <quill_network/HttpRequest.h>

#include <algorithm>
#include <cctype>

namespace {

bool sameHeaderName(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

}  // namespace

void HttpRequest::appendHeader(const std::string& name, const std::string& value) {
  auto existing = std::find_if(headerList.begin(), headerList.end(), [&](const auto& header) {
    return sameHeaderName(header.first, name);
  });
  if (existing != headerList.end()) {
    existing->second = value;
    return;
  }
  headerList.emplace_back(name, value);
}
