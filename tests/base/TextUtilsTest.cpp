#include <quill_base/TextUtils.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <unordered_set>

TEST(TextUtils, IsEqualsComparesBytes) {
  EXPECT_TRUE(TextUtils::isEquals("", ""));
  EXPECT_TRUE(TextUtils::isEquals("abc", "abc"));
  EXPECT_FALSE(TextUtils::isEquals("abc", "ABC"));
  EXPECT_FALSE(TextUtils::isEquals("abc", "abc "));
  EXPECT_TRUE(TextUtils::isEquals(std::string("a\0b", 3), std::string("a\0b", 3)));
  EXPECT_FALSE(TextUtils::isEquals(std::string("a\0b", 3), std::string("a\0c", 3)));
}

TEST(TextUtils, HasPrefix) {
  EXPECT_TRUE(TextUtils::hasPrefix("https://host/x", "https://"));
  EXPECT_FALSE(TextUtils::hasPrefix("http://host/x", "https://"));
  EXPECT_TRUE(TextUtils::hasPrefix("anything", ""));
  EXPECT_FALSE(TextUtils::hasPrefix("ht", "http"));
  EXPECT_TRUE(TextUtils::hasPrefix("same", "same"));
}

TEST(TextUtils, ReplaceAll) {
  std::string url = "http://static.example/a/static.example/b";
  TextUtils::replaceAll(url, "static.example", "cdn.example");
  EXPECT_EQ(url, "http://cdn.example/a/cdn.example/b");

  std::string grows = "aaa";
  TextUtils::replaceAll(grows, "a", "aa");
  EXPECT_EQ(grows, "aaaaaa") << "inserted text is not scanned again";

  std::string overlapping = "aaaa";
  TextUtils::replaceAll(overlapping, "aa", "b");
  EXPECT_EQ(overlapping, "bb");

  std::string shrink = "x--y--z";
  TextUtils::replaceAll(shrink, "--", "");
  EXPECT_EQ(shrink, "xyz");

  std::string untouched = "abc";
  TextUtils::replaceAll(untouched, "", "zzz");
  EXPECT_EQ(untouched, "abc");
  TextUtils::replaceAll(untouched, "q", "zzz");
  EXPECT_EQ(untouched, "abc");
}

TEST(TextUtils, HashStringIsSha256Hex) {
  EXPECT_EQ(TextUtils::hashString("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(TextUtils::hashString("The quick brown fox jumps over the lazy dog"),
            "d7a8fbb307d7809469ca9abcb0082e4f8d5651e46d3cdb762d02d0bf37c9e592");
  EXPECT_EQ(TextUtils::hashString("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(TextUtils::hashString(std::string(1, '\0')),
            "6e340b9cffb37a989ca544e6bb780a2c78901d3fb33738768511a30617afa01d");
  EXPECT_EQ(TextUtils::hashString(""), "");
}

TEST(TextUtils, HashStringIsStableAndDistinguishes) {
  const std::string url = "https://static.example/avatars/u1.png";
  EXPECT_EQ(TextUtils::hashString(url), TextUtils::hashString(url));
  EXPECT_NE(TextUtils::hashString(url), TextUtils::hashString(url + "?v=2"));
  EXPECT_EQ(TextUtils::hashString(url).size(), 64u);
}

TEST(TextUtils, TenThousandUuidsAreWellFormedAndDistinct) {
  // xxxxxxxx-xxxx-4xxx-Yxxx-xxxxxxxxxxxx, lowercase hex, Y one of 8, 9, a, b.
  auto wellFormed = [](const std::string& uuid) {
    for (std::size_t i = 0; i < uuid.size(); ++i) {
      const char c = uuid[i];
      const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
      if (dash ? c != '-' : !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
        return false;
      }
    }
    return uuid[14] == '4' && std::string("89ab").find(uuid[19]) != std::string::npos;
  };
  std::unordered_set<std::string> seen;
  for (int i = 0; i < 10000; ++i) {
    const auto uuid = TextUtils::UUID_String();
    ASSERT_EQ(uuid.size(), 36u);
    ASSERT_TRUE(wellFormed(uuid)) << uuid;
    ASSERT_TRUE(seen.insert(uuid).second) << "repeated " << uuid;
  }
}

TEST(TextUtils, ToString) {
  EXPECT_EQ(TextUtils::toString(0), "0");
  EXPECT_EQ(TextUtils::toString(-100), "-100");
  EXPECT_EQ(TextUtils::toString(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(TextUtils::toString(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(TextUtils::toString(0.5), "0.5");
  EXPECT_EQ(TextUtils::toString(1e21), "1e+21");
  EXPECT_EQ(TextUtils::toString(true), "true");
  EXPECT_EQ(TextUtils::toString(false), "false");
}

TEST(TextUtils, PrintableWritesControlCharactersAsHex) {
  EXPECT_EQ(TextUtils::printable("plain name.txt"), "plain name.txt");
  EXPECT_EQ(TextUtils::printable(std::string("a\0b", 3)), "a\\x00b");
  EXPECT_EQ(TextUtils::printable("line\nbreak\x1b[2J\x7f"), "line\\x0abreak\\x1b[2J\\x7f");
  EXPECT_EQ(TextUtils::printable("Zoë 文件"), "Zoë 文件");
}
