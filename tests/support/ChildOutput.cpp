#include "ChildOutput.h"

#include "TestSupport.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#endif

#include <utility>

namespace quill_test {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

#if defined(_WIN32)

struct ChildOutput::OverlappedPipe {
  HANDLE handle = INVALID_HANDLE_VALUE;
  OVERLAPPED overlapped{};
  bool reading = false;
  char buffer[8192];

  explicit OverlappedPipe(HANDLE handle) : handle(handle) {
    overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  }
  ~OverlappedPipe() {
    if (reading) {
      // The system writes into the buffer until the read is over: it must end before the buffer
      // goes.
      CancelIoEx(handle, &overlapped);
      DWORD ignored = 0;
      GetOverlappedResult(handle, &overlapped, &ignored, TRUE);
    }
    CloseHandle(handle);
    if (overlapped.hEvent != nullptr) {
      CloseHandle(overlapped.hEvent);
    }
  }
  OverlappedPipe(const OverlappedPipe&) = delete;
  OverlappedPipe& operator=(const OverlappedPipe&) = delete;
};

ChildOutput::ChildOutput() = default;

ChildOutput::ChildOutput(void* handle) {
  if (handle != nullptr && handle != INVALID_HANDLE_VALUE) {
    pipe = std::make_unique<OverlappedPipe>(static_cast<HANDLE>(handle));
    if (pipe->overlapped.hEvent == nullptr) {
      pipe.reset();
    }
  }
}

ChildOutput::~ChildOutput() {
  close();
}

ChildOutput::ChildOutput(ChildOutput&& other) noexcept
    : pipe(std::move(other.pipe)), collected(std::move(other.collected)) {}

ChildOutput& ChildOutput::operator=(ChildOutput&& other) noexcept {
  if (this != &other) {
    close();
    pipe = std::move(other.pipe);
    collected = std::move(other.collected);
  }
  return *this;
}

void ChildOutput::close() {
  pipe.reset();
}

bool ChildOutput::readFor(std::chrono::milliseconds timeout) {
  if (!pipe) {
    return false;
  }
  if (!pipe->reading) {
    ResetEvent(pipe->overlapped.hEvent);
    if (ReadFile(pipe->handle, pipe->buffer, sizeof pipe->buffer, nullptr, &pipe->overlapped) ==
            0 &&
        GetLastError() != ERROR_IO_PENDING) {
      // ERROR_BROKEN_PIPE: every writer has closed its end.
      close();
      return false;
    }
    pipe->reading = true;
  }
  if (WaitForSingleObject(pipe->overlapped.hEvent, static_cast<DWORD>(timeout.count())) !=
      WAIT_OBJECT_0) {
    // Still under way: taken up again by the next call.
    return true;
  }
  DWORD got = 0;
  const bool done = GetOverlappedResult(pipe->handle, &pipe->overlapped, &got, FALSE) != 0;
  pipe->reading = false;
  if (!done) {
    close();
    return false;
  }
  collected.append(pipe->buffer, got);
  return true;
}

#else

ChildOutput::~ChildOutput() {
  close();
}

ChildOutput::ChildOutput(ChildOutput&& other) noexcept
    : descriptor(std::exchange(other.descriptor, -1)), collected(std::move(other.collected)) {}

ChildOutput& ChildOutput::operator=(ChildOutput&& other) noexcept {
  if (this != &other) {
    close();
    descriptor = std::exchange(other.descriptor, -1);
    collected = std::move(other.collected);
  }
  return *this;
}

void ChildOutput::close() {
  if (descriptor >= 0) {
    ::close(descriptor);
    descriptor = -1;
  }
}

bool ChildOutput::readFor(std::chrono::milliseconds timeout) {
  if (descriptor < 0) {
    return false;
  }
  pollfd entry{descriptor, POLLIN, 0};
  if (poll(&entry, 1, static_cast<int>(timeout.count())) <= 0) {
    return true;
  }
  char buffer[8192];
  const ssize_t got = read(descriptor, buffer, sizeof buffer);
  if (got > 0) {
    collected.append(buffer, static_cast<std::size_t>(got));
  } else if (got == 0 || errno != EINTR) {
    close();
  }
  return descriptor >= 0;
}

#endif

bool ChildOutput::readUntil(const std::string& text, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (collected.find(text) == std::string::npos) {
    if (Clock::now() >= deadline || !readFor(timeLeft(deadline))) {
      return collected.find(text) != std::string::npos;
    }
  }
  return true;
}

bool ChildOutput::readToEnd(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (open() && Clock::now() < deadline) {
    readFor(timeLeft(deadline));
  }
  return !open();
}

}  // namespace quill_test
