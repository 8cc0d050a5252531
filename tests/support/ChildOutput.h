#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace quill_test {

// What a child process writes into a pipe or a pseudo-terminal, collected as it comes. Owns the
// reading end (on Windows the server end of a named pipe opened for overlapped reads, so that a
// read can be waited for with a timeout).
class ChildOutput {
public:
#if defined(_WIN32)
  ChildOutput();
  explicit ChildOutput(void* pipe);
#else
  ChildOutput() = default;
  explicit ChildOutput(int descriptor) : descriptor(descriptor) {}
#endif
  ~ChildOutput();
  ChildOutput(ChildOutput&& other) noexcept;
  ChildOutput& operator=(ChildOutput&& other) noexcept;

  // False once the writing side has closed (end of file; EIO on a terminal), or when there is none.
#if defined(_WIN32)
  bool open() const {
    return pipe != nullptr;
  }
#else
  bool open() const {
    return descriptor >= 0;
  }
#endif

  // Waits up to `timeout` for bytes and appends what came; false once the writing side has closed.
  bool readFor(std::chrono::milliseconds timeout);
  // Reads until what was collected holds `text`; false when the timeout passed or the writing side
  // closed first.
  bool readUntil(const std::string& text, std::chrono::milliseconds timeout);
  // Reads until the writing side closes; false when the timeout passed first.
  bool readToEnd(std::chrono::milliseconds timeout);

  // Everything collected so far.
  const std::string& text() const {
    return collected;
  }

private:
  void close();

#if defined(_WIN32)
  // The pipe, its event and the read under way, which must stay where they are while it is.
  struct OverlappedPipe;
  std::unique_ptr<OverlappedPipe> pipe;
#else
  int descriptor = -1;
#endif
  std::string collected;
};

}  // namespace quill_test
