#pragma once

#include "detail/HttpLib.h"

#include <cstddef>
#include <map>
#include <string>

namespace quill_fileservice::detail {

// Percent-decoding; with plusIsSpace, "+" stands for a blank as in url-encoded forms and queries.
std::string percentDecode(const std::string& text, bool plusIsSpace);
// Percent-encodes everything but unreserved characters (letters, digits, "-", ".", "_", "~").
std::string percentEncode(const std::string& text);

// Fields of an application/x-www-form-urlencoded body; the first value of a repeated name wins.
std::map<std::string, std::string> parseUrlEncoded(const std::string& body);

// Reads a request body that is not multipart, of at most `limit` bytes, into `out`; false for a
// multipart body (left unread), a larger one or one that cannot be read.
bool readSmallBody(const httplib::Request& request, const httplib::ContentReader& reader,
                   std::string& out, std::size_t limit);

// Reads the request body to its end and throws it away, multipart or not, so that the connection
// can carry the next request after a refusal. False when the body could not be read.
bool discardBody(const httplib::Request& request, const httplib::ContentReader& reader);

}  // namespace quill_fileservice::detail
