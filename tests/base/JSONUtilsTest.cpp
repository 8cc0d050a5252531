#include <quill_base/JSONUtils.h>

#include <gtest/gtest.h>

namespace {

Json::Value parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(JSONUtils::parseJSON(text, value)) << text;
  return value;
}

}  // namespace

TEST(JSONUtils, ParsesAReply) {
  Json::Value value;
  ASSERT_TRUE(JSONUtils::parseJSON(R"({"code":0,"path":"//host/files/k","msg":"ok"})", value));
  EXPECT_EQ(JSONUtils::optInt("code", value, -1), 0);
  EXPECT_EQ(JSONUtils::optString("path", value, ""), "//host/files/k");
  EXPECT_TRUE(JSONUtils::parseJSON("  [1, 2]\n", value));
  EXPECT_TRUE(value.isArray());
}

TEST(JSONUtils, RefusesMalformedText) {
  for (const char* text : {"", "   ", "{", "{\"code\":}", "{\"code\":1,}x", "<html>500</html>",
                           "{\"a\":1} trailing", "nul", "{'a':1}"}) {
    Json::Value value("untouched");
    EXPECT_FALSE(JSONUtils::parseJSON(text, value)) << text;
    EXPECT_EQ(value.asString(), "untouched") << text;
  }
}

TEST(JSONUtils, OptIntReturnsTheDefaultForOtherTypes) {
  const auto value =
      parse(R"({"int":7,"neg":-3,"str":"5","float":3.5,"whole":4.0,"bool":true,"null":null,)"
            R"("big":9999999999,"obj":{},"arr":[1]})");
  EXPECT_EQ(JSONUtils::optInt("int", value, -1), 7);
  EXPECT_EQ(JSONUtils::optInt("neg", value, -1), -3);
  EXPECT_EQ(JSONUtils::optInt("whole", value, -1), 4);
  EXPECT_EQ(JSONUtils::optInt("str", value, -1), -1);
  EXPECT_EQ(JSONUtils::optInt("float", value, -1), -1);
  EXPECT_EQ(JSONUtils::optInt("bool", value, -1), -1);
  EXPECT_EQ(JSONUtils::optInt("null", value, -1), -1);
  EXPECT_EQ(JSONUtils::optInt("big", value, -1), -1);
  EXPECT_EQ(JSONUtils::optInt("obj", value, -1), -1);
  EXPECT_EQ(JSONUtils::optInt("arr", value, -1), -1);
  EXPECT_EQ(JSONUtils::optInt("missing", value, -1), -1);
}

TEST(JSONUtils, OptStringReturnsTheDefaultForOtherTypes) {
  const auto value = parse(R"({"s":"text","empty":"","n":1,"null":null,"arr":["x"]})");
  EXPECT_EQ(JSONUtils::optString("s", value, "d"), "text");
  EXPECT_EQ(JSONUtils::optString("empty", value, "d"), "");
  EXPECT_EQ(JSONUtils::optString("n", value, "d"), "d");
  EXPECT_EQ(JSONUtils::optString("null", value, "d"), "d");
  EXPECT_EQ(JSONUtils::optString("arr", value, "d"), "d");
  EXPECT_EQ(JSONUtils::optString("missing", value, "d"), "d");
}

TEST(JSONUtils, LookupsOnNonObjectsNeverThrow) {
  for (const char* text : {"[1,2,3]", "\"code\"", "12", "null", "true"}) {
    const auto value = parse(text);
    EXPECT_EQ(JSONUtils::optInt("code", value, 9), 9) << text;
    EXPECT_EQ(JSONUtils::optString("code", value, "d"), "d") << text;
  }
  EXPECT_EQ(JSONUtils::optInt("code", Json::Value(), 9), 9);
}
