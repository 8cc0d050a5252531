#pragma once

#include "RecordedRequest.h"

#include <chrono>

namespace quill_test {

// A request of the end-to-end tests: its end and its progress recorded, and a minute to end in,
// for a real transfer against the reference file service.
class Tracked : public RecordedRequest {
public:
  Tracked(bool upload, int kind) : RecordedRequest(upload, kind) { recordProgress(); }

  bool waitEnded(std::chrono::milliseconds timeout = std::chrono::seconds(60)) const {
    return RecordedRequest::waitEnded(timeout);
  }
};

}  // namespace quill_test
