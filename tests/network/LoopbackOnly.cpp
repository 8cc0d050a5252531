// The tests talk to servers on loopback only. A proxy configured in the developer's environment
// must not intercept them, so loopback is exempted from proxying for the whole test process (the
// engine leaves proxy variables to libcurl, which reads no_proxy like the rest of them).

#include "Environment.h"
#include "GlobalEnvironment.h"

#include <gtest/gtest.h>

#include <stdlib.h>

namespace {

class LoopbackOnly : public ::testing::Environment {
public:
  void SetUp() override {
    quill_test::setEnvironment("no_proxy", "127.0.0.1,localhost");
    quill_test::setEnvironment("NO_PROXY", "127.0.0.1,localhost");
  }
};

[[maybe_unused]] LoopbackOnly* const environment =
    quill_test::registerEnvironment(new LoopbackOnly);

}  // namespace
