#include <quill_network/detail/HttpTransport.h>

#include <gtest/gtest.h>

using quill_network_detail::testing::encodeForm;

TEST(FormEncoding, EmptyFormGivesEmptyBody) {
  EXPECT_EQ(encodeForm({}), "");
}

TEST(FormEncoding, FieldsComeInKeyOrder) {
  EXPECT_EQ(encodeForm({{"zeta", "1"}, {"alpha", "2"}, {"mid", "3"}}), "alpha=2&mid=3&zeta=1");
}

TEST(FormEncoding, UnreservedCharactersStayAsTheyAre) {
  EXPECT_EQ(encodeForm({{"k", "AZaz09-._~"}}), "k=AZaz09-._~");
}

TEST(FormEncoding, SpacesAndSeparatorsArePercentEncoded) {
  EXPECT_EQ(encodeForm({{"a b", "x y"}}), "a%20b=x%20y");
  EXPECT_EQ(encodeForm({{"q", "a&b=c"}}), "q=a%26b%3Dc");
  EXPECT_EQ(encodeForm({{"p", "1+1/2?#%"}}), "p=1%2B1%2F2%3F%23%25");
}

TEST(FormEncoding, Utf8BytesAreEncodedOneByOne) {
  EXPECT_EQ(encodeForm({{"name", "\xC3\xA9t\xC3\xA9"}}), "name=%C3%A9t%C3%A9");  // "été"
}

TEST(FormEncoding, EmptyValuesKeepTheirField) {
  EXPECT_EQ(encodeForm({{"a", ""}, {"b", "2"}}), "a=&b=2");
}
