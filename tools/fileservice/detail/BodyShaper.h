#pragma once

#include "detail/Connections.h"
#include "detail/HttpLib.h"
#include "detail/StopSignal.h"

#include <quill_fileservice/FileService.h>

#include <chrono>
#include <cstdint>
#include <memory>

namespace quill_fileservice::detail {

// Sends a reply body the way a fault says: at most bytesPerSecond, the connection dropped at
// dropAfterBytes or at each multiple of cutEveryBytes, or sending stopped at stallAfterBytes with
// the connection held open until the client closes it, the service stops or a safety limit of ten
// minutes passes. Those limits are offsets in the file: a reply to a range that starts at
// `startOffset` counts from there, and one that starts beyond a drop or a stall sends nothing.
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
  // Bytes of this reply until the file offset `fileOffset` (0 when the reply began beyond it).
  std::uint64_t untilByte(std::int64_t fileOffset) const;

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
