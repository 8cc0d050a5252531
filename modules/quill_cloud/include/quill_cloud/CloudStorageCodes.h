#pragma once

#include <cstdint>

// Names for the integers that a CloudStorageRequest and its callbacks carry. They are plain
// constants, not enumerations, so that they compare with and assign to the request's int fields and
// the callbacks' int argument as they are; the values never change.

// What a request moves (CloudStorageRequest::kind).
namespace CloudStorageKind {
inline constexpr std::int32_t kImage = 1;
inline constexpr std::int32_t kFile = 2;
// Uploads only.
inline constexpr std::int32_t kVideo = 3;
}  // namespace CloudStorageKind

// How a request ended (CloudStorageRequest::resultCode).
namespace CloudStorageResult {
// Not ended yet: the value of a new request.
inline constexpr std::int32_t kPending = 1;
inline constexpr std::int32_t kSuccess = 2;
inline constexpr std::int32_t kCancelled = 3;
// A failure found before or outside the transfer (a bad request, a file that cannot be read or
// moved).
inline constexpr std::int32_t kFailed = -1;
// A download answered 404, 403 or 400.
inline constexpr std::int32_t kNotFound = -2;
inline constexpr std::int32_t kForbidden = -3;
inline constexpr std::int32_t kBadRequest = -4;
// Any other failure of the transfer or of the server.
inline constexpr std::int32_t kTransferFailed = -100;
}  // namespace CloudStorageResult

// The state a stateCallback reports; it is called once, with kFinished.
namespace CloudStorageState {
inline constexpr int kWaiting = 1;
inline constexpr int kRunning = 2;
inline constexpr int kFinished = 3;
}  // namespace CloudStorageState

// The task a request becomes, from its direction and kind (as the service's log lines name it).
namespace CloudStorageTaskType {
inline constexpr int kImageUpload = 1;
inline constexpr int kFileUpload = 2;
inline constexpr int kImageDownload = 3;
inline constexpr int kFileDownload = 4;
inline constexpr int kVideoUpload = 5;
}  // namespace CloudStorageTaskType
