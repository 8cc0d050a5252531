#include "ChildOutput.h"

#include "TestSupport.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quill_test {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

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
