// The tests talk to servers on loopback only. A proxy configured in the developer's environment
// must not intercept them, so loopback is exempted from proxying for the whole test process (the
// engine leaves proxy variables to libcurl, which reads no_proxy like the rest of them).

#include "GlobalEnvironment.h"

#include <gtest/gtest.h>

#include <stdlib.h>

namespace {

class LoopbackOnly : public ::testing::Environment {
public:
  void SetUp() override {
    ::setenv("no_proxy", "127.0.0.1,localhost", 1);
    ::setenv("NO_PROXY", "127.0.0.1,localhost", 1);
  }
};

[[maybe_unused]] LoopbackOnly* const environment =
    quill_test::registerEnvironment(new LoopbackOnly);

}  // namespace
