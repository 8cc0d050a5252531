#include "detail/BodyShaper.h"

#include <algorithm>

namespace quill_fileservice::detail {

namespace {

// Throttled bodies go out in slices of about this long, so that the rate holds at a fine grain.
constexpr int kSlicesPerSecond = 20;
// How often a stalled reply looks whether its client gave up or the service stops.
constexpr auto kStallPoll = std::chrono::milliseconds(20);
// A stalled reply whose client never gives up ends after this long all the same.
constexpr auto kStallLimit = std::chrono::minutes(10);

}  // namespace

BodyShaper::BodyShaper(const Fault& fault, const StopSignal& stop, ConnectionId connection)
    : fault(fault), stop(stop), connection(std::move(connection)) {}

bool BodyShaper::write(httplib::DataSink& sink, const char* data, std::size_t size) {
  if (!startedClock) {
    started = std::chrono::steady_clock::now();
    startedClock = true;
  }
  while (size > 0) {
    if (stop.raised()) {
      return false;
    }
    std::uint64_t chunk = size;
    if (fault.bytesPerSecond > 0) {
      const auto slice = static_cast<std::uint64_t>(
          std::max<std::int64_t>(1, fault.bytesPerSecond / kSlicesPerSecond));
      chunk = std::min(chunk, slice);
    }
    if (fault.dropAfterBytes >= 0) {
      const std::uint64_t limit = untilByte(fault.dropAfterBytes);
      if (sent >= limit) {
        return false;
      }
      chunk = std::min(chunk, limit - sent);
    }
    if (fault.cutEveryBytes > 0) {
      // The next multiple of cutEveryBytes after the body's first byte ends this reply.
      const auto every = static_cast<std::uint64_t>(fault.cutEveryBytes);
      const std::uint64_t limit = every - startOffset % every;
      if (sent >= limit) {
        return false;
      }
      chunk = std::min(chunk, limit - sent);
    }
    if (fault.stallAfterBytes >= 0) {
      const std::uint64_t limit = untilByte(fault.stallAfterBytes);
      if (sent >= limit) {
        stall();
        return false;
      }
      chunk = std::min(chunk, limit - sent);
    }
    if (fault.bytesPerSecond > 0) {
      // A slice leaves once the rate allows every byte up to its end: at no time has more than
      // rate * elapsed gone out, and the whole body takes size / rate.
      const auto due =
          started +
          std::chrono::microseconds(static_cast<std::int64_t>(
              (sent + chunk) * 1000000 / static_cast<std::uint64_t>(fault.bytesPerSecond)));
      if (due > std::chrono::steady_clock::now() && stop.waitUntil(due)) {
        return false;
      }
    }
    if (!sink.write(data, static_cast<std::size_t>(chunk))) {
      return false;
    }
    sent += chunk;
    data += chunk;
    size -= static_cast<std::size_t>(chunk);
  }
  return true;
}

std::uint64_t BodyShaper::untilByte(std::int64_t fileOffset) const {
  const auto offset = static_cast<std::uint64_t>(fileOffset);
  return offset > startOffset ? offset - startOffset : 0;
}

void BodyShaper::stall() {
  const int socket = findSocket(connection);
  const auto deadline = std::chrono::steady_clock::now() + kStallLimit;
  while (!stop.waitFor(kStallPoll)) {
    if ((socket >= 0 && peerHasGone(socket, connection.ssl != nullptr)) ||
        std::chrono::steady_clock::now() >= deadline) {
      return;
    }
  }
}

httplib::ContentProvider BodyShaper::wrap(httplib::ContentProvider inner,
                                          std::shared_ptr<BodyShaper> shaper) {
  return [inner = std::move(inner), shaper = std::move(shaper)](
             std::size_t offset, std::size_t length, httplib::DataSink& sink) {
    if (!shaper->begun) {
      shaper->begun = true;
      shaper->startAt(offset);
    }
    bool ok = true;
    httplib::DataSink relay;
    relay.write = [&](const char* data, std::size_t size) {
      ok = ok && shaper->write(sink, data, size);
      return ok;
    };
    relay.is_writable = [&] { return ok && sink.is_writable(); };
    relay.done = [] {};
    const bool provided = inner(offset, length, relay);
    return provided && ok;
  };
}

}  // namespace quill_fileservice::detail
