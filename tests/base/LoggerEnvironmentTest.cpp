#include <quill_base/Logger.h>

#include <quill_base/TextUtils.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

// Run with QUILL_LOG_LEVEL=error and QUILL_LOG_FILE set (see CMakeLists.txt).
TEST(LoggerEnvironment, LevelAndFileComeFromTheEnvironment) {
  const char* file = std::getenv("QUILL_LOG_FILE");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(Logger::m_logger.getLogLevel(), log4cplus::ERROR_LOG_LEVEL);

  const auto marker = TextUtils::UUID_String();
  QLOG_WARN("below the threshold " << marker);
  QLOG_ERROR("into the file " << marker);

  std::ifstream in(file);
  const std::string text((std::istreambuf_iterator<char>(in)), {});
  EXPECT_NE(text.find("into the file " + marker), std::string::npos) << text;
  EXPECT_EQ(text.find("below the threshold " + marker), std::string::npos) << text;
}
