#pragma once

// Runs a probe program of the shutdown tests as a process of its own, under a time limit.

#include <chrono>
#include <string>
#include <vector>

namespace quill_test {

// Runs `program` with `arguments` and waits up to `limit` for it to end: its exit status, or -1
// when it was killed for running too long or did not end normally (a crash).
int runProbe(const std::string& program, const std::vector<std::string>& arguments,
             std::chrono::seconds limit);

}  // namespace quill_test
