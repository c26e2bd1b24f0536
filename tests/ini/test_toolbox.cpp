// Sorting, searching, number parsing, string helpers and the binary-data text
// encoding.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "toolbox.h"

namespace {

// ---------------------------------------------------------------- numbers

TEST(Numbers, StrictDecimalAcceptsAndRefuses) {
  const char* good[] = {"  +42  ", "4294967295", "0", "-0", "\t7\n", "+0001"};
  const unsigned expect[] = {42, 4294967295u, 0, 0, 7, 1};
  for (size_t i = 0; i < sizeof good / sizeof *good; ++i) {
    unsigned v = 99;
    int neg = 5;
    EXPECT_EQ(ConvertNumStrToUint(good[i], &v, &neg), 1) << good[i];
    EXPECT_EQ(v, expect[i]) << good[i];
  }
  const char* bad[] = {"4294967296", "4 2", "--1", "1-", "", "   ", "- 5", "+", "12a", "0x10", "1+",
                       "99999999999", "4294967300"};
  for (const char* s : bad) {
    unsigned v = 1234;
    int neg = 0;
    EXPECT_EQ(ConvertNumStrToUint(s, &v, &neg), 0) << s;
    EXPECT_EQ(v, 1234u) << "output touched for " << s;
  }
  int neg = 7;
  unsigned v;
  EXPECT_EQ(ConvertNumStrToUint("-3", &v, &neg), 1);
  EXPECT_EQ(neg, 1);
  EXPECT_EQ(ConvertNumStrToUint(nullptr, &v, &neg), 0);
}

TEST(Numbers, SignedAndUnsignedBounds) {
  int i = 0;
  EXPECT_EQ(StrToInt("-2147483648", &i), 1);
  EXPECT_EQ(i, INT32_MIN);
  EXPECT_EQ(StrToInt("2147483647", &i), 1);
  EXPECT_EQ(i, INT32_MAX);
  i = 5;
  EXPECT_EQ(StrToInt("2147483648", &i), 0);
  EXPECT_EQ(StrToInt("-2147483649", &i), 0);
  EXPECT_EQ(i, 5);
  EXPECT_EQ(StrToInt("-0", &i), 1);
  EXPECT_EQ(i, 0);
  unsigned u = 3;
  EXPECT_EQ(StrToUInt("-0", &u), 0);
  EXPECT_EQ(StrToUInt("-1", &u), 0);
  EXPECT_EQ(u, 3u);
  EXPECT_EQ(StrToUInt("4294967295", &u), 1);
  EXPECT_EQ(u, 4294967295u);
}

// ---------------------------------------------------------------- encoding

TEST(DataText, KnownVector) {
  const unsigned char bytes[] = {0xFF, 0x00, 0x80};
  unsigned char* text = nullptr;
  ASSERT_EQ(ConvertDataToText(bytes, 3, &text), 1);
  EXPECT_STREQ((char*)text, "bo00");
  free(text);
  unsigned char* data = nullptr;
  int size = -1;
  ASSERT_EQ(ConvertTextToData((const unsigned char*)"bo00", &size, &data), 1);
  ASSERT_EQ(size, 3);
  EXPECT_EQ(0, memcmp(data, bytes, 3));
  free(data);
}

TEST(DataText, EmptyAndShortTexts) {
  unsigned char* text = nullptr;
  ASSERT_EQ(ConvertDataToText(nullptr, 0, &text), 1);
  EXPECT_STREQ((char*)text, "");
  free(text);
  unsigned char sentinel = 0;
  unsigned char* data = &sentinel;
  int size = -1;
  EXPECT_EQ(ConvertTextToData((const unsigned char*)"A", &size, &data), 1);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(data, &sentinel);  // no buffer for zero bytes
  EXPECT_EQ(ConvertTextToData((const unsigned char*)"ooooo", &size, &data), 1);  // 4 + 1 ignored
  EXPECT_EQ(size, 3);
  free(data);
}

TEST(DataText, RoundTripEveryLengthUpTo64) {
  std::mt19937 rng(12345);
  for (int len = 0; len <= 64; ++len) {
    for (int rep = 0; rep < 8; ++rep) {
      std::vector<unsigned char> in(len);
      for (auto& b : in) b = (unsigned char)rng();
      unsigned char* text = nullptr;
      ASSERT_EQ(ConvertDataToText(in.data(), len, &text), 1);
      size_t tl = strlen((char*)text);
      EXPECT_EQ(tl, (size_t)(4 * (len / 3) + (len % 3 ? len % 3 + 1 : 0)));
      for (size_t k = 0; k < tl; ++k) ASSERT_TRUE(text[k] >= '0' && text[k] <= 'o');
      unsigned char* out = nullptr;
      int size = -1;
      ASSERT_EQ(ConvertTextToData(text, &size, &out), 1);
      ASSERT_EQ(size, len);
      if (len) {
        EXPECT_EQ(0, memcmp(out, in.data(), len)) << "length " << len;
      }
      free(out);
      free(text);
    }
  }
}

// ---------------------------------------------------------------- strings

TEST(Strings, CaseInsensitiveWithoutSurroundingWhiteSpace) {
  EXPECT_EQ(stricmpWithoutSurrWhiteSpace("  Abc ", "aBC"), 0);
  EXPECT_EQ(stricmpWithoutSurrWhiteSpace("ab", "abc"), -1);
  EXPECT_EQ(stricmpWithoutSurrWhiteSpace("abc", "ab  "), 1);
  EXPECT_EQ(stricmpWithoutSurrWhiteSpace("a b", "a  b"), 1);  // inner blanks count
  EXPECT_EQ(stricmpWithoutSurrWhiteSpace(nullptr, nullptr), 0);
  EXPECT_EQ(stricmpWithoutSurrWhiteSpace(nullptr, "a"), -1);
  EXPECT_EQ(stricmpWithoutSurrWhiteSpace("a", nullptr), 1);
  EXPECT_EQ(stricmpWithoutSurrWhiteSpace("", "   "), 0);
}

TEST(Strings, SpliceOverlaysFields) {
  char* r = nullptr;
  ASSERT_EQ(SpliceCommaSeparatedList("a,,c", "x,y,z,w", &r), 0);
  EXPECT_STREQ(r, "a,y,c,w");
  free(r);
  ASSERT_EQ(SpliceCommaSeparatedList("", "", &r), 0);
  EXPECT_STREQ(r, "");
  free(r);
  ASSERT_EQ(SpliceCommaSeparatedList("1,2,3,4", "x", &r), 0);
  EXPECT_STREQ(r, "1,2,3,4");
  free(r);
  ASSERT_EQ(SpliceCommaSeparatedList(",", ",,q", &r), 0);
  EXPECT_STREQ(r, ",,q");
  free(r);
}

TEST(Strings, TrimAppendPrefixQuote) {
  char buf[] = " \t hello world \n";
  RemoveSurroundingWhiteSpace(buf);
  EXPECT_STREQ(buf, "hello world");
  char* t = StrDupWithoutSurrWhiteSpace("   ");
  EXPECT_STREQ(t, "");
  free(t);
  EXPECT_EQ(HasNonWhiteSpace(" \t"), 0);
  EXPECT_EQ(HasNonWhiteSpace(nullptr), 0);
  EXPECT_STREQ(SkipNonWhiteSpace("ab cd"), " cd");

  char* s = nullptr;
  EXPECT_EQ(AppendString(&s, "abcdef", 3), 1);
  EXPECT_STREQ(s, "abc");
  EXPECT_EQ(AppendString(&s, "XY", 10), 1);
  EXPECT_STREQ(s, "abcXY");
  EXPECT_EQ(AddStringPrefix(&s, "12345", 2), 1);
  EXPECT_STREQ(s, "12abcXY");
  EXPECT_EQ(AddStringPrefix(&s, "zz", 0), 1);
  EXPECT_STREQ(s, "12abcXY");
  EXPECT_EQ(AddStringQuotes(&s), 1);
  EXPECT_STREQ(s, "\"12abcXY\"");
  free(s);
  s = nullptr;
  EXPECT_EQ(AddStringPrefix(&s, "p", -1), 1);
  EXPECT_STREQ(s, "p");
  free(s);
}

// ---------------------------------------------------------------- searching

TEST(Search, InsertionCodesMatchTrueInsertionPoint) {
  std::mt19937 rng(7);
  for (int n = 0; n < 40; ++n) {
    std::vector<int> v(n);
    for (auto& x : v) x = (int)(rng() % 30) * 2;  // even values, odd keys are absent
    std::sort(v.begin(), v.end());
    for (int key = -1; key <= 61; ++key) {
      int r = BinSearch(v.data(), n, sizeof(int), &key, IntCompare);
      if (r >= 0) {
        ASSERT_LT(r, n);
        EXPECT_EQ(v[r], key);
      } else {
        EXPECT_EQ(std::count(v.begin(), v.end(), key), 0);
        size_t pos = -r - 1;  // 0-based slot in front of which the key belongs
        EXPECT_EQ(pos, (size_t)(std::lower_bound(v.begin(), v.end(), key) - v.begin()))
            << "n=" << n << " key=" << key;
      }
    }
  }
}

TEST(Search, NullCompareUsesRawBytes) {
  unsigned char a[] = {1, 3, 5, 7};
  unsigned char k = 5;
  EXPECT_EQ(BinSearch(a, 4, 1, &k, nullptr), 2);
  k = 6;
  EXPECT_EQ(BinSearch(a, 4, 1, &k, nullptr), -4);
  EXPECT_EQ(BinSearch(a, 0, 1, &k, nullptr), -1);
}

// ---------------------------------------------------------------- sorting

// Items of `size` bytes whose first byte is the key, the rest a fingerprint
// of the key, so that mixing up bytes of different items is detected.
int g_itemSize;
int KeyCompare(const void* a, const void* b) {
  return memcmp(a, b, g_itemSize);
}

using SortFn = void (*)(void*, int, int, CompareFunction);
void QSortAdapter(void* a, int n, int s, CompareFunction f) { QSort((char*)a, n, s, f); }

void CheckSort(SortFn sort, const char* name) {
  std::mt19937 rng(99);
  const int sizes[] = {1, 2, 3, 4, 6, 8, 12};
  const int counts[] = {0, 1, 2, 3, 4, 5, 7, 10, 17, 31, 64, 100, 257, 1000};
  for (int size : sizes) {
    g_itemSize = size;
    for (int n : counts) {
      for (int pattern = 0; pattern < 4; ++pattern) {
        std::vector<std::string> items(n);
        for (int i = 0; i < n; ++i) {
          int key = pattern == 0 ? (int)(rng() % 1000)
                    : pattern == 1 ? i                      // sorted
                    : pattern == 2 ? n - i                  // reversed
                                   : (int)(rng() % 3);      // many equal
          std::string it(size, 0);
          // big-endian key in the first bytes, a fingerprint of it in the rest
          for (int b = 0; b < size; ++b)
            it[b] = (char)(b == 0 ? (size == 1 ? key : key >> 8) : b == 1 ? key & 0xFF : key * 31 + b);
          items[i] = it;
        }
        std::vector<char> buf(n * size + 1);
        for (int i = 0; i < n; ++i) memcpy(buf.data() + 1 + i * size, items[i].data(), size);  // unaligned
        sort(buf.data() + 1, n, size, KeyCompare);
        std::sort(items.begin(), items.end(), [](const std::string& a, const std::string& b) {
          return memcmp(a.data(), b.data(), a.size()) < 0;
        });
        for (int i = 0; i < n; ++i)
          ASSERT_EQ(0, memcmp(buf.data() + 1 + i * size, items[i].data(), size))
              << name << " size " << size << " n " << n << " pattern " << pattern << " at " << i;
      }
    }
  }
}

TEST(Sort, QuickSortMatchesStdSort) { CheckSort(QSortAdapter, "QSort"); }
TEST(Sort, HeapSortMatchesStdSort) { CheckSort(HeapSort, "HeapSort"); }
TEST(Sort, InsertionSortMatchesStdSort) { CheckSort(InsertionSort, "InsertionSort"); }

TEST(Sort, InsertionSortIsStable) {
  struct P { int key, seq; };
  std::vector<P> v;
  for (int i = 0; i < 50; ++i) v.push_back({i % 5, i});
  InsertionSort(v.data(), (int)v.size(), sizeof(P), IntCompare);
  for (size_t i = 1; i < v.size(); ++i) {
    ASSERT_LE(v[i - 1].key, v[i].key);
    if (v[i - 1].key == v[i].key) {
      EXPECT_LT(v[i - 1].seq, v[i].seq);
    }
  }
}

// Adversarial inputs (organ pipe, median-of-three killer shapes, all equal)
// under a guard zone: the sort must finish, stay inside the array and
// return a permutation of it.
TEST(Sort, QuickSortAdversarialStaysInBounds) {
  const int n = 5000;
  std::vector<std::vector<int>> inputs;
  std::vector<int> pipe(n), killer(n), equal(n, 4), saw(n);
  for (int i = 0; i < n; ++i) {
    pipe[i] = i < n / 2 ? i : n - i;
    saw[i] = i % 17;
    killer[i] = (i % 2) ? i : n - i;
  }
  inputs = {pipe, killer, equal, saw};
  for (auto& in : inputs) {
    std::vector<int> guarded(n + 64, 0x5A5A5A5A);
    std::copy(in.begin(), in.end(), guarded.begin() + 32);
    QSort((char*)(guarded.data() + 32), n, sizeof(int), IntCompare);
    for (int i = 0; i < 32; ++i) {
      ASSERT_EQ(guarded[i], 0x5A5A5A5A);
      ASSERT_EQ(guarded[n + 32 + i], 0x5A5A5A5A);
    }
    std::vector<int> out(guarded.begin() + 32, guarded.begin() + 32 + n), ref = in;
    std::sort(ref.begin(), ref.end());
    EXPECT_EQ(out, ref);
  }
}

// A compare function that answers at random must not drive the partition
// outside the array or into an endless loop.
int RandomCompare(const void*, const void*) { return (int)(std::rand() % 3) - 1; }

TEST(Sort, QuickSortSurvivesInconsistentCompare) {
  std::srand(3);
  std::vector<int> guarded(2000 + 64, 0x5A5A5A5A);
  for (int i = 0; i < 2000; ++i) guarded[32 + i] = i;
  QSort((char*)(guarded.data() + 32), 2000, sizeof(int), RandomCompare);
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(guarded[i], 0x5A5A5A5A);
    EXPECT_EQ(guarded[2032 + i], 0x5A5A5A5A);
  }
  std::vector<int> out(guarded.begin() + 32, guarded.begin() + 2032);
  std::sort(out.begin(), out.end());
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(out[i], i);
}

}  // namespace
