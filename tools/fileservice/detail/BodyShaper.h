#pragma once

#include "detail/Connections.h"
#include "detail/HttpLib.h"
#include "detail/StopSignal.h"

#include <quill_fileservice/FileService.h>

#include <chrono>
#include <cstdint>
#include <memory>

namespace quill_fileservice::detail {

// Sends a reply body the way a fault says: at most bytesPerSecond, the connection dropped after
// dropAfterBytes, or sending stopped after stallAfterBytes with the connection held open until the
// client closes it, the service stops or a safety limit of ten minutes passes. Counts the bytes of
// one reply from zero, whatever offset (range) the body starts at; only cutEveryBytes counts from
// the file's start, which is where the body begins plus `startOffset`.
class BodyShaper {
public:
  BodyShaper(const Fault& fault, const StopSignal& stop, ConnectionId connection);

  // Where in the file the body begins (a range's first byte); 0 unless told.
  void startAt(std::uint64_t offset) { startOffset = offset; }

  // Passes the bytes on to `sink` as the fault allows; false once the reply is to end early (the
  // connection is then closed).
  bool write(httplib::DataSink& sink, const char* data, std::size_t size);

  // A content provider that sends `inner`'s output through a shaper.
  static httplib::ContentProvider wrap(httplib::ContentProvider inner,
                                       std::shared_ptr<BodyShaper> shaper);

private:
  void stall();

  Fault fault;
  const StopSignal& stop;
  ConnectionId connection;
  std::uint64_t startOffset = 0;
  bool begun = false;
  std::uint64_t sent = 0;
  std::chrono::steady_clock::time_point started;
  bool startedClock = false;
};

}  // namespace quill_fileservice::detail
