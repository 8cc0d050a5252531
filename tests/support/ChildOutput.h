#pragma once

#include <chrono>
#include <string>

namespace quill_test {

// What a child process writes into a pipe or a pseudo-terminal, collected as it comes. Owns the
// reading end.
class ChildOutput {
public:
  ChildOutput() = default;
  explicit ChildOutput(int descriptor) : descriptor(descriptor) {}
  ~ChildOutput();
  ChildOutput(ChildOutput&& other) noexcept;
  ChildOutput& operator=(ChildOutput&& other) noexcept;

  // False once the writing side has closed (end of file; EIO on a terminal), or when there is none.
  bool open() const { return descriptor >= 0; }

  // Waits up to `timeout` for bytes and appends what came; false once the writing side has closed.
  bool readFor(std::chrono::milliseconds timeout);
  // Reads until what was collected holds `text`; false when the timeout passed or the writing side
  // closed first.
  bool readUntil(const std::string& text, std::chrono::milliseconds timeout);
  // Reads until the writing side closes; false when the timeout passed first.
  bool readToEnd(std::chrono::milliseconds timeout);

  // Everything collected so far.
  const std::string& text() const { return collected; }

private:
  void close();

  int descriptor = -1;
  std::string collected;
};

}  // namespace quill_test
