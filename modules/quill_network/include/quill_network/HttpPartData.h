#pragma once

#include <quill_network/quill_network_export.h>

#include <string>

// One part of a multipart form: a text field, or a local file sent under its own file name.
struct QUILL_NETWORK_EXPORT HttpPartData {
  // True: `value` is the path of a local file, streamed from disk while the request is sent.
  bool isFile = false;
  // Form field name of the part.
  std::string name;
  // The field's text, or the local file's path.
  std::string value;
  // Content type of a file part; application/octet-stream when empty. Not sent for text parts.
  std::string contentType;

  static HttpPartData makePart(const std::string& name, const std::string& value, bool isFile);
};
