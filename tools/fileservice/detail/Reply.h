#pragma once

#include "detail/HttpLib.h"
#include "detail/StopSignal.h"

#include <quill_fileservice/FileService.h>

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

namespace quill_fileservice::detail {

// What a route answers, before faults and before it is written: a status, headers and either a
// body in memory or a stored file that is streamed from disk.
struct Reply {
  int status = 200;
  std::string contentType = "text/plain";
  std::string body;
  // When set, the body is this file's content, read piece by piece as it is sent (ranges honoured).
  std::string filePath;
  std::vector<std::pair<std::string, std::string>> headers;
  // Close the connection after this reply: the request body was not read to its end.
  bool closeConnection = false;

  static Reply json(const Json::Value& value, int status = 200);
  static Reply text(int status, std::string text);
  static Reply file(std::string path, std::string contentType);
  static Reply redirect(const std::string& location);
};

// Compact JSON text.
std::string toJson(const Json::Value& value);

// Content type of a stored file, from its extension.
std::string contentTypeFor(const std::string& key);

// Writes the reply into httplib's response; with a fault that shapes bodies, the body goes out
// through a BodyShaper.
void render(Reply reply, const Fault* fault, const StopSignal& stop,
            const httplib::Request& request, httplib::Response& response);

}  // namespace quill_fileservice::detail
