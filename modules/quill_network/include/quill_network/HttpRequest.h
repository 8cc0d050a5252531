#pragma once

#include <quill_network/quill_network_export.h>

#include <string>
#include <utility>
#include <vector>

// What a caller may add to a request before it is sent (see HttpClient::executePost).
class QUILL_NETWORK_EXPORT HttpRequest {
public:
  // Adds a header line; a header the client would set itself (Content-Type, say) is replaced.
  void appendHeader(const std::string& name, const std::string& value);

  const std::vector<std::pair<std::string, std::string>>& headers() const { return headerList; }

private:
  std::vector<std::pair<std::string, std::string>> headerList;
};
