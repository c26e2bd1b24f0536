// Typed value access: conversions, the untouched-output rule, escapes, the
// string cache, buffer copies and binary data.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ini_internal.h"

namespace {

struct Lines {
  std::vector<std::string> v;
  size_t next = 0;
};
int Source(void* src, char* buf, int max, int* end, int* lineNum) {
  Lines* l = (Lines*)src;
  if (l->next >= l->v.size()) {
    *end = 1;
    return 0;
  }
  snprintf(buf, (size_t)max + 1, "%s", l->v[l->next++].c_str());
  *lineNum = (int)l->next;
  return 0;
}

class Values : public testing::Test {
 protected:
  void SetUp() override {
    doc = Ini_New(1);
    Lines l{{"[V]", "blank =   ", "int = -42", "big = 2147483648", "neg = -1", "uint = 4294967295",
             "inf = INF", "minf = -inf", "pinf = +Inf", "sci = 1.5e3", "bad = 1.5x", "t = TRUE", "f = false",
             "yes = yes", "tab = a\\tb", "hex = \\x41\\x6a", "cut = ab\\x4", "cut2 = ab\\x", "tail = ab\\",
             "esc = \\n\\r\\\\\\\"\\q", "ten = 0123456789", "odd = \\xZ1", "data = bo00", "short = A",
             "quoted = \"  spaced  \""}};
    ASSERT_EQ(Ini_ReadGeneric(doc, Source, &l), 0);
  }
  void TearDown() override { Ini_Dispose(doc); }
  std::string Unescaped(const char* item) {
    char* s = nullptr;
    EXPECT_EQ(Ini_GetPointerToString(doc, "V", item, &s), 1) << item;
    return s ? std::string(s) : std::string();
  }
  IniText doc = nullptr;
};

TEST_F(Values, IntegersAndUntouchedOutputs) {
  int i = 77;
  EXPECT_EQ(Ini_GetInt(doc, "V", "blank", &i), 0);
  EXPECT_EQ(Ini_GetInt(doc, "V", "missing", &i), 0);
  EXPECT_EQ(Ini_GetInt(doc, "nosection", "int", &i), 0);
  EXPECT_EQ(i, 77);
  EXPECT_EQ(Ini_GetInt(doc, "V", "big", &i), -1);
  EXPECT_EQ(Ini_GetInt(doc, "V", "int", &i), 1);
  EXPECT_EQ(i, -42);
  unsigned u = 5;
  EXPECT_EQ(Ini_GetUInt(doc, "V", "neg", &u), -1);
  EXPECT_EQ(Ini_GetUInt(doc, "V", "blank", &u), 0);
  EXPECT_EQ(u, 5u);
  EXPECT_EQ(Ini_GetUInt(doc, " v ", " UINT ", &u), 1);
  EXPECT_EQ(u, 4294967295u);
  EXPECT_EQ(Ini_GetInt(nullptr, "V", "int", &i), -1);
  EXPECT_EQ(Ini_GetInt(doc, "V", "int", nullptr), -1);
}

TEST_F(Values, DoublesAndBooleans) {
  double d = 0;
  EXPECT_EQ(Ini_GetDouble(doc, "V", "inf", &d), 1);
  EXPECT_TRUE(std::isinf(d) && d > 0);
  EXPECT_EQ(Ini_GetDouble(doc, "V", "minf", &d), 1);
  EXPECT_TRUE(std::isinf(d) && d < 0);
  EXPECT_EQ(Ini_GetDouble(doc, "V", "pinf", &d), 1);
  EXPECT_TRUE(d > 0 && std::isinf(d));
  EXPECT_EQ(Ini_GetDouble(doc, "V", "sci", &d), 1);
  EXPECT_EQ(d, 1500.0);
  d = 0;
  EXPECT_EQ(Ini_GetDouble(doc, "V", "bad", &d), -1);
  EXPECT_EQ(d, 1.5);  // stored despite the failure
  d = 3;
  EXPECT_EQ(Ini_GetDouble(doc, "V", "blank", &d), 0);
  EXPECT_EQ(d, 3);
  int b = 9;
  EXPECT_EQ(Ini_GetBoolean(doc, "V", "t", &b), 1);
  EXPECT_EQ(b, 1);
  EXPECT_EQ(Ini_GetBoolean(doc, "V", "f", &b), 1);
  EXPECT_EQ(b, 0);
  b = 9;
  EXPECT_EQ(Ini_GetBoolean(doc, "V", "yes", &b), -1);
  EXPECT_EQ(Ini_GetBoolean(doc, "V", "blank", &b), 0);
  EXPECT_EQ(b, 9);
}

TEST_F(Values, EscapesResolvedOnlyOnRequest) {
  std::string tab = Unescaped("tab");
  ASSERT_EQ(tab.size(), 3u);
  EXPECT_EQ(tab[1], '\t');
  char* raw = nullptr;
  EXPECT_EQ(Ini_GetPointerToRawString(doc, "V", "tab", &raw), 1);
  EXPECT_STREQ(raw, "a\\tb");
  EXPECT_EQ(Unescaped("hex"), "Aj");
  EXPECT_EQ(Unescaped("cut"), "ab");
  EXPECT_EQ(Unescaped("cut2"), "ab");
  EXPECT_EQ(Unescaped("tail"), "ab");
  EXPECT_EQ(Unescaped("esc"), "\n\r\\\"q");
  EXPECT_EQ(Unescaped("odd"), std::string(1, (char)(16 * -1 + 1)));  // lenient: wrong byte, no error
  EXPECT_EQ(Unescaped("quoted"), "  spaced  ");
}

TEST_F(Values, UnescapeNeverReadsPastTheText) {
  // heap copies of exact size let the sanitizer see any over-read
  for (const char* t : {"\\x4", "\\x", "\\", "x\\x41\\x4"}) {
    size_t n = strlen(t) + 1;
    char* src = (char*)malloc(n);
    char* dst = (char*)malloc(n);
    memcpy(src, t, n);
    EXPECT_EQ(UnescapeText(src, dst), 0);
    EXPECT_LE(strlen(dst), strlen(src));
    free(src);
    free(dst);
  }
}

TEST_F(Values, StringCacheSizing) {
  char* s = nullptr;
  EXPECT_EQ(Ini_GetPointerToString(doc, "V", "tab", &s), 1);
  EXPECT_EQ(GetHandleSize(doc->stringCache), 1024u);
  EXPECT_EQ(SetStringCacheSize(doc, 1024), 0);
  EXPECT_EQ(GetHandleSize(doc->stringCache), 2048u);
  EXPECT_EQ(SetStringCacheSize(doc, 1023), 0);
  EXPECT_EQ(GetHandleSize(doc->stringCache), 1024u);
  EXPECT_EQ(SetStringCacheSize(doc, 3000), 0);
  EXPECT_EQ(GetHandleSize(doc->stringCache), 3072u);
  s = (char*)1;
  EXPECT_EQ(Ini_GetPointerToString(doc, "V", "missing", &s), 0);
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(Ini_GetPointerToString(doc, "V", "tab", nullptr), -1);
}

TEST_F(Values, CopiesAndBuffers) {
  char* copy = nullptr;
  EXPECT_EQ(Ini_GetStringCopy(doc, "V", "hex", &copy), 1);
  EXPECT_STREQ(copy, "Aj");
  free(copy);
  EXPECT_EQ(Ini_GetRawStringCopy(doc, "V", "hex", &copy), 1);
  EXPECT_STREQ(copy, "\\x41\\x6a");
  free(copy);
  copy = (char*)1;
  EXPECT_EQ(Ini_GetStringCopy(doc, "V", "missing", &copy), 0);
  EXPECT_EQ(copy, nullptr);

  char buf[16];
  memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(Ini_GetStringIntoBuffer(doc, "V", "ten", buf, 10), 1);
  EXPECT_EQ(0, memcmp(buf, "0123456789", 10));  // no NUL in the ten bytes
  EXPECT_EQ(buf[10], 'Z');
  memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(Ini_GetStringIntoBuffer(doc, "V", "hex", buf, 8), 1);
  for (int k = 2; k < 8; ++k) EXPECT_EQ(buf[k], 0);  // padded
  EXPECT_EQ(buf[8], 'Z');
  EXPECT_EQ(Ini_GetStringIntoBuffer(doc, "V", "blank", buf, 8), 1);
  EXPECT_STREQ(buf, "");
  buf[0] = 'x';
  EXPECT_EQ(Ini_GetStringIntoBuffer(doc, "V", "missing", buf, 8), 0);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(Ini_GetRawStringIntoBuffer(doc, "V", "tab", buf, 8), 1);
  EXPECT_STREQ(buf, "a\\tb");
}

TEST_F(Values, BinaryData) {
  unsigned char* data = nullptr;
  ViInt32 size = -1;
  EXPECT_EQ(Ini_GetData(doc, "V", "data", &data, &size), 1);
  ASSERT_EQ(size, 3);
  EXPECT_EQ(data[0], 0xFF);
  EXPECT_EQ(data[1], 0x00);
  EXPECT_EQ(data[2], 0x80);
  free(data);
  EXPECT_EQ(Ini_GetData(doc, "V", "short", &data, &size), 1);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(data, nullptr);
  size = 5;
  EXPECT_EQ(Ini_GetData(doc, "V", "missing", &data, &size), 0);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(Ini_GetData(doc, "V", "data", nullptr, &size), -1);
}

}  // namespace
