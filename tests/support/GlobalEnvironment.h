#pragma once

#include <gtest/gtest.h>

namespace quill_test {

// Hands the environment to GoogleTest, which owns it from then on. Meant for a namespace-scope
// constant, so that the environment is registered before main() runs the tests.
template <typename Environment>
Environment* registerEnvironment(Environment* environment) {
  ::testing::AddGlobalTestEnvironment(environment);
  return environment;
}

}  // namespace quill_test
