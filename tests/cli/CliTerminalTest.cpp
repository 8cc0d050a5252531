// quill-cloud's progress display on a terminal: a live block that never outgrows the screen, each
// finished transfer printed once above it, queued transfers marked, and no escape codes at all for
// a terminal that cannot take them.
#include "CliFixture.h"

using cli_test::CliTest;
using cli_test::TerminalProcess;
using cli_test::traceScreen;
using quill_test::CloudEnvironment;

namespace {

constexpr unsigned short kRows = 30;
constexpr unsigned short kColumns = 200;

TEST_F(CliTest, FortyDownloadsOnAThirtyRowTerminalScrollOnlyTheirResults) {
  constexpr int kCount = 40;
  const auto [local, path] = serve("many.bin", 48 * 1024);
  std::vector<std::string> arguments{"download"};
  for (int i = 0; i < kCount; ++i) {
    // The same file under forty names, each paced so that the block lives a while.
    const auto key = "many-" + std::to_string(i) + "-" + TextUtils::UUID_String() + ".bin";
    const auto served = CloudEnvironment::server().addFile(key, local);
    arguments.push_back(CloudEnvironment::url(served + "?quill_rate=196608"));
  }
  const auto destination = work.file("many");
  arguments.insert(arguments.end(), {"--dir", destination});

  TerminalProcess tool(withIdentity(arguments), kRows, kColumns, environment({{"TERM", "xterm"}}));
  ASSERT_TRUE(tool.started());
  ASSERT_EQ(tool.finish(std::chrono::seconds(90)), 0) << tool.output();
  EXPECT_EQ(entries(destination), static_cast<std::size_t>(kCount));

  const auto trace = traceScreen(tool.output(), kRows);
  // The block is redrawn in place: it never asks to move up over more rows than the screen has.
  EXPECT_GT(trace.largestMoveUp, 0) << "no live block was drawn";
  EXPECT_LT(trace.largestMoveUp, static_cast<int>(kRows));
  // What scrolls: each download's result (standard output) and its finished line (standard error),
  // and at most one screenful for the block. Redrawing a block taller than the screen scrolled
  // a screen's overflow at every redraw, thousands of lines.
  EXPECT_LE(trace.scrolled, 2 * kCount + kRows) << trace.lineFeeds << " line feeds";
  // Downloads beyond the library's four at a time were shown as waiting their turn.
  EXPECT_NE(tool.output().find("queued"), std::string::npos);
  EXPECT_NE(tool.output().find(" more ("), std::string::npos);
}

TEST_F(CliTest, TerminalWithoutCursorControlGetsPlainLines) {
  const auto [local, path] = serve("plain.bin", 64 * 1024);
  for (const char* term : {"dumb", ""}) {
    auto environment = this->environment();
    if (*term != '\0') {
      environment.set.emplace_back("TERM", term);
    } else {
      environment.unset.push_back("TERM");
    }
    TerminalProcess tool(
        withIdentity({"download", CloudEnvironment::url(path + "?quill_rate=131072"), "--dir",
                      work.file(std::string("plain-") + term)}),
        kRows, kColumns, environment);
    ASSERT_TRUE(tool.started());
    EXPECT_EQ(tool.finish(std::chrono::seconds(60)), 0) << tool.output();
    EXPECT_EQ(tool.output().find('\x1b'), std::string::npos) << "TERM=" << term << "\n"
                                                             << tool.output();
    EXPECT_NE(tool.output().find("done, 64.0 KiB"), std::string::npos) << tool.output();
  }
}

}  // namespace
