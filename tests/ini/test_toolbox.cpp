// The toolbox (number parsing, the binary-data text encoding, string helpers,
// searching, sorting) and the item list built on it (handles, positions,
// growth, compaction, copying, appending, ordered insertion, duplicates).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "itemlist.h"
#include "toolbox.h"

namespace {

// "result:value" of a conversion whose output starts out as 77.
template <typename T, typename F>
std::string Conv(F f, const char* s) {
  T v = 77;
  int rc = f(s, &v);
  return std::to_string(rc) + ":" + std::to_string(v);
}

TEST(Numbers, StrictDecimalAndBounds) {
  auto uintOf = [](const char* s, unsigned* v) {
    int neg = 5;
    return ConvertNumStrToUint(s, v, &neg);
  };
  for (auto [text, want] : {std::pair{"  +42  ", "1:42"}, {"4294967295", "1:4294967295"}, {"0", "1:0"},
                            {"-0", "1:0"}, {"\t7\n", "1:7"}, {"+0001", "1:1"}})
    EXPECT_EQ(Conv<unsigned>(uintOf, text), want) << text;
  // Refused: the output stays untouched.
  for (const char* bad : {"4294967296", "4 2", "--1", "1-", "", "   ", "- 5", "+", "12a", "0x10", "1+",
                          "99999999999", "4294967300", (const char*)nullptr})
    EXPECT_EQ(Conv<unsigned>(uintOf, bad), "0:77") << (bad ? bad : "null");
  // StrToInt takes the sign from the parser's flag, which the lowest int needs.
  for (auto [text, want] : {std::pair{"-2147483648", "1:-2147483648"}, {"2147483647", "1:2147483647"},
                            {"2147483648", "0:77"}, {"-2147483649", "0:77"}, {"-0", "1:0"}})
    EXPECT_EQ(Conv<int>(StrToInt, text), want) << text;
  for (auto [text, want] : {std::pair{"-0", "0:77"}, {"-1", "0:77"}, {"4294967295", "1:4294967295"}})
    EXPECT_EQ(Conv<unsigned>(StrToUInt, text), want) << text;
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
      EXPECT_EQ(std::vector<unsigned char>(out, out + len), in) << "length " << len;
      free(out);
      free(text);
    }
  }
}

TEST(Strings, CompareSpliceTrimAppendPrefixQuote) {
  struct Cmp { const char *a, *b; int want; };
  for (const Cmp& c : {Cmp{"  Abc ", "aBC", 0}, Cmp{"ab", "abc", -1}, Cmp{"abc", "ab  ", 1},
                       Cmp{"a b", "a  b", 1} /* inner blanks count */, Cmp{nullptr, nullptr, 0},
                       Cmp{nullptr, "a", -1}, Cmp{"a", nullptr, 1}, Cmp{"", "   ", 0}})
    EXPECT_EQ(stricmpWithoutSurrWhiteSpace(c.a, c.b), c.want) << (c.a ? c.a : "null") << "|" << (c.b ? c.b : "null");
  struct Splice { const char *over, *base, *want; };
  for (const Splice& c : {Splice{"a,,c", "x,y,z,w", "a,y,c,w"}, Splice{"", "", ""},
                          Splice{"1,2,3,4", "x", "1,2,3,4"}, Splice{",", ",,q", ",,q"}}) {
    char* r = nullptr;
    ASSERT_EQ(SpliceCommaSeparatedList(c.over, c.base, &r), 0);
    EXPECT_STREQ(r, c.want);
    free(r);
  }

  char buf[] = " \t hello world \n";
  RemoveSurroundingWhiteSpace(buf);
  EXPECT_STREQ(buf, "hello world");
  char* t = StrDupWithoutSurrWhiteSpace("   ");
  EXPECT_STREQ(t, "");
  free(t);
  EXPECT_EQ(HasNonWhiteSpace(" \t") | HasNonWhiteSpace(nullptr), 0);
  EXPECT_STREQ(SkipNonWhiteSpace("ab cd"), " cd");

  char* s = nullptr;
  EXPECT_EQ(AppendString(&s, "abcdef", 3), 1);
  EXPECT_EQ(AppendString(&s, "XY", 10), 1);
  EXPECT_STREQ(s, "abcXY");
  EXPECT_EQ(AddStringPrefix(&s, "12345", 2), 1);
  EXPECT_EQ(AddStringPrefix(&s, "zz", 0), 1);
  EXPECT_EQ(AddStringQuotes(&s), 1);
  EXPECT_STREQ(s, "\"12abcXY\"");
  free(s);
  s = nullptr;
  EXPECT_EQ(AddStringPrefix(&s, "p", -1), 1);
  EXPECT_STREQ(s, "p");
  free(s);
}

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
  // Without a compare function the raw bytes are compared.
  unsigned char a[] = {1, 3, 5, 7}, five = 5, six = 6;
  EXPECT_EQ(BinSearch(a, 4, 1, &five, nullptr), 2);
  EXPECT_EQ(BinSearch(a, 4, 1, &six, nullptr), -4);
  EXPECT_EQ(BinSearch(a, 0, 1, &six, nullptr), -1);
}

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
          // big-endian key in the first bytes, a fingerprint of it in the rest
          items[i].resize(size);
          for (int b = 0; b < size; ++b)
            items[i][b] = (char)(b == 0 ? (size == 1 ? key : key >> 8) : b == 1 ? key & 0xFF : key * 31 + b);
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

TEST(Sort, AllThreeMatchStdSortAndInsertionSortIsStable) {
  CheckSort(QSortAdapter, "QSort");
  CheckSort(HeapSort, "HeapSort");
  CheckSort(InsertionSort, "InsertionSort");
  struct P { int key, seq; };
  std::vector<P> v;
  for (int i = 0; i < 50; ++i) v.push_back({i % 5, i});
  InsertionSort(v.data(), (int)v.size(), sizeof(P), IntCompare);
  for (size_t i = 1; i < v.size(); ++i)
    ASSERT_TRUE(v[i - 1].key < v[i].key || (v[i - 1].key == v[i].key && v[i - 1].seq < v[i].seq)) << i;
}

// A compare function that answers at random must not drive the partition
// outside the array or into an endless loop.
int RandomCompare(const void*, const void*) { return (int)(std::rand() % 3) - 1; }

// Adversarial inputs (organ pipe, median-of-three killer shapes, all equal)
// and an inconsistent compare, under a guard zone: the sort must finish,
// stay inside the array and return a permutation of it.
TEST(Sort, QuickSortAdversarialStaysInBounds) {
  const int n = 5000;
  std::vector<int> pipe(n), killer(n), equal(n, 4), saw(n), seq(n);
  for (int i = 0; i < n; ++i) {
    pipe[i] = i < n / 2 ? i : n - i;
    saw[i] = i % 17;
    killer[i] = (i % 2) ? i : n - i;
    seq[i] = i;
  }
  std::srand(3);
  for (const std::vector<int>* input : {&pipe, &killer, &equal, &saw, &seq}) {
    const std::vector<int>& in = *input;
    std::vector<int> guarded(n + 64, 0x5A5A5A5A);
    std::copy(in.begin(), in.end(), guarded.begin() + 32);
    QSort((char*)(guarded.data() + 32), n, sizeof(int), &in == &seq ? RandomCompare : IntCompare);
    for (int i = 0; i < 32; ++i) {
      ASSERT_EQ(guarded[i], 0x5A5A5A5A);
      ASSERT_EQ(guarded[n + 32 + i], 0x5A5A5A5A);
    }
    std::vector<int> out(guarded.begin() + 32, guarded.begin() + 32 + n), ref = in;
    std::sort(ref.begin(), ref.end());
    if (&in == &seq) std::sort(out.begin(), out.end());
    EXPECT_EQ(out, ref);
  }
}

// A list that disposes of itself; it converts to the ListType the calls take.
struct List {
  std::unique_ptr<HandleRecord, void (*)(ListType)> p;
  explicit List(ListType l) : p(l, ListDispose) {}
  operator ListType() const { return p.get(); }
};
using V = std::vector<int>;

V Items(ListType l) {
  V v(ListNumItems(l));
  for (int i = 1; i <= (int)v.size(); ++i) ListGetItem(l, &v[i - 1], i);
  return v;
}

ListStruct* Header(ListType l) { return (ListStruct*)l->data; }
int Capacity(ListType l) { return Header(l)->listSize; }

List ListOf(V values) {
  List l(ListCreate(sizeof(int)));
  for (int v : values) EXPECT_EQ(ListInsertItem(l, &v, END_OF_LIST), 1);
  return l;
}

TEST(Handles, SizeChangesZeroFillAndKeepContents) {
  Handle h = NewHandle(4);
  ASSERT_NE(h, nullptr);
  memcpy(h->data, "abcd", 4);
  ASSERT_EQ(SetHandleSize(h, 100), 1);
  EXPECT_EQ(std::string(h->data, 100), "abcd" + std::string(96, '\0'));
  EXPECT_EQ(SetHandleSize(h, 0), 1);
  EXPECT_EQ(GetHandleSize(h), 0u);
  DisposeHandle(h);
  Handle empty = NewHandle(0);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->data, nullptr);
  DisposeHandle(empty);
  DisposeHandle(nullptr);
}

// Positions: 1..n, 0 (or END_OF_LIST) the last/end, -1 the front.
TEST(List, PositionsForInsertGetReplaceRemove) {
  // 9 into {1, 2, 3}: numItems + 1 appends, numItems + 2 and -2 are refused.
  for (auto [pos, want] : {std::pair{5, V{1, 2, 3}}, {-2, V{1, 2, 3}}, {4, V{1, 2, 3, 9}}, {0, V{1, 2, 3, 9}},
                           {-1, V{9, 1, 2, 3}}, {3, V{1, 2, 9, 3}}}) {
    List l = ListOf({1, 2, 3});
    int v = 9;
    EXPECT_EQ(ListInsertItem(l, &v, pos), want.size() == 4 ? 1 : 0) << pos;
    EXPECT_EQ(Items(l), want) << pos;
  }
  List l = ListOf({5, 6});
  int v = 9;
  EXPECT_EQ(ListInsertItems(l, nullptr, 2, 2), 1);  // zero-filled
  EXPECT_EQ(ListInsertItems(l, &v, 1, 0), 0);
  EXPECT_EQ(Items(l), (V{5, 0, 0, 6}));
  l = List(ListCreate(sizeof(int)));
  EXPECT_EQ(ListInsertItem(l, &v, -1), 1);  // -1 on an empty list appends
  EXPECT_EQ(Items(l), V{9});

  l = ListOf({10, 20, 30, 40});
  for (auto [pos, want] : {std::pair{0, 40}, {-1, 10}}) {
    ListGetItem(l, &v, pos);
    EXPECT_EQ(v, want) << pos;
  }
  int a = 99, b = 11, two[2] = {1, 2};
  ListReplaceItem(l, &a, 0);
  ListReplaceItem(l, &b, -1);
  ListReplaceItems(l, two, 4, 2);     // runs past the end: nothing
  ListRemoveItems(l, nullptr, 1, 5);  // more than held: nothing
  EXPECT_EQ(Items(l), (V{11, 20, 30, 99}));
  for (auto [pos, want] : {std::pair{0, 99}, {-1, 11}}) {
    ListRemoveItem(l, &v, pos);
    EXPECT_EQ(v, want) << pos;
  }
  EXPECT_EQ(Items(l), (V{20, 30}));
  int out[2] = {0, 0};
  ListGetItems(l, out, 1, 3);  // out of range: untouched
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(ListGetPtrToItem(l, 3), nullptr);
  EXPECT_EQ(*(int*)ListGetPtrToItem(l, 2), 30);
  EXPECT_EQ(ListGetPtrToItem(nullptr, 1), nullptr);
}

// Automatic growth adds the whole scaled size (listSize * 110 / 100, at
// least 4) plus the items being inserted.
TEST(List, GrowthPreAllocationAndCompaction) {
  List l(ListCreate(sizeof(int)));
  int v = 1;
  for (int want : {5, 5, 5, 5, 5, 5 + 5 + 1}) {  // minimum 4 plus the one inserted, then full
    ListInsertItem(l, &v, 0);
    EXPECT_EQ(Capacity(l), want);
  }

  List big(ListCreate(1));
  ASSERT_EQ(ListPreAllocate(big, 100), 1);
  EXPECT_EQ(Capacity(big), 100);
  ASSERT_EQ(ListInsertItems(big, nullptr, 0, 100), 1);
  char c = 0;
  ASSERT_EQ(ListInsertItem(big, &c, 0), 1);
  EXPECT_EQ(Capacity(big), 100 + 110 + 1);
  EXPECT_EQ(GetHandleSize(big), sizeof(ListStruct) + 211u);

  // Many items into too few free slots.
  l = List(ListCreate(sizeof(int)));
  ListPreAllocate(l, 3);
  ListInsertItem(l, &v, 0);  // 2 free slots remain
  V many(50);
  for (int i = 0; i < 50; ++i) many[i] = i + 100;
  ASSERT_EQ(ListInsertItems(l, many.data(), 1, 50), 1);
  EXPECT_GE(Capacity(l), 51);
  EXPECT_LE(GetHandleSize(l), sizeof(ListStruct) + 4u * Capacity(l));
  many.push_back(1);
  EXPECT_EQ(Items(l), many);

  l = ListOf({1, 2, 3});
  int cap = Capacity(l);
  EXPECT_EQ(ListPreAllocate(l, cap - 3), 1);  // enough free already
  EXPECT_EQ(Capacity(l), cap);
  EXPECT_EQ(ListPreAllocate(l, cap - 3 + 7), 1);  // grows by the shortfall
  EXPECT_EQ(Capacity(l), cap + 7);
  ListCompact(l);
  EXPECT_EQ(Capacity(l), 3);
  EXPECT_EQ(GetHandleSize(l), sizeof(ListStruct) + 12u);
  EXPECT_EQ(Items(l), (V{1, 2, 3}));
  ListClear(l);
  ListCompact(l);
  EXPECT_EQ(Capacity(l), 0);
  EXPECT_EQ(GetHandleSize(l), sizeof(ListStruct));
  EXPECT_EQ(ListPreAllocate(nullptr, 3), 0);
}

TEST(List, CopyAppendEqual) {
  List a = ListOf({1, 2, 3});
  ListSetAllocationPolicy(a, 9, 50);
  List c(ListCopy(a));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(Capacity(c), 3);
  EXPECT_EQ(Header(c)->minNumItemsIncrease, 9);
  EXPECT_EQ(Header(c)->percentIncrease, 50);
  EXPECT_EQ(ListEqual(a, c) + ListEqual(a, a), 2);
  EXPECT_EQ(ListEqual(a, nullptr), 0);
  int v = 4;
  ListInsertItem(c, &v, 0);
  EXPECT_EQ(ListEqual(a, c), 0);

  EXPECT_EQ(ListAppend(a, c), 1);
  EXPECT_EQ(Items(a), (V{1, 2, 3, 1, 2, 3, 4}));
  EXPECT_EQ(Capacity(a), 7);
  EXPECT_EQ(ListAppend(a, a), 1);  // appending a list to itself
  EXPECT_EQ(Items(a), (V{1, 2, 3, 1, 2, 3, 4, 1, 2, 3, 1, 2, 3, 4}));
  List bytes(ListCreate(1));
  char ch = 1;
  ListInsertItem(bytes, &ch, 0);
  EXPECT_EQ(ListAppend(a, bytes), 0);  // other item size
  EXPECT_EQ(ListNumItems(a), 14);
  EXPECT_EQ(ListAppend(a, nullptr), 1);
  EXPECT_EQ(ListAppend(nullptr, c), 0);
  EXPECT_EQ(ListEqual(bytes, a), 0);  // smaller items, never read past
}

TEST(List, OrderedInsertionSearchAndDuplicates) {
  List l(ListCreate(sizeof(int)));
  for (int v : {5, 1, 9, 5, 3, 7, 1}) ASSERT_EQ(ListInsertInOrder(l, &v, IntCompare), 1);
  EXPECT_EQ(Items(l), (V{1, 1, 3, 5, 5, 7, 9}));
  EXPECT_EQ(ListIsSorted(l, IntCompare), 1);
  int seven = 7, eight = 8, five = 5, nine = 9;
  EXPECT_EQ(ListBinSearch(l, &seven, IntCompare), 6);
  EXPECT_EQ(ListBinSearch(l, &eight, IntCompare), 0);
  for (auto [from, want] : {std::pair{1, 4}, {5, 5}, {6, 0}, {8, 0}})
    EXPECT_EQ(ListFindItem(l, &five, from, IntCompare), want) << from;
  EXPECT_EQ(ListFindItem(l, &nine, 0, nullptr), 7);  // 0 starts at the last item

  // An equal value goes directly before the equal item the search hit.
  struct P { int key, tag; };
  List p(ListCreate(sizeof(P)));
  P items[] = {{1, 0}, {2, 0}, {3, 0}}, n = {2, 1}, got;
  ListInsertItems(p, items, 0, 3);
  ListInsertInOrder(p, &n, IntCompare);
  ListGetItem(p, &got, 2);
  EXPECT_EQ(got.tag, 1);

  l = ListOf({3, 1, 3, 2, 1, 3, 4, 2});
  ListRemoveDuplicates(l, IntCompare);
  EXPECT_EQ(Items(l), (V{3, 1, 2, 4}));  // the first of each kept, in order
}

TEST(List, SortsApplyAndPointerLists) {
  for (auto sorter : {ListQuickSort, ListHeapSort, ListInsertionSort}) {
    List l = ListOf({9, -3, 7, 0, 7, 2});
    sorter(l, IntCompare);
    EXPECT_EQ(Items(l), (V{-3, 0, 2, 7, 7, 9}));
  }
  List l = ListOf({1, 2, 3, 4});
  V seen;
  auto record = [](int index, void* item, void* data) -> int {
    static_cast<V*>(data)->push_back(index * 100 + *(int*)item);
    return *(int*)item == 2 ? -5 : 1;
  };
  for (auto [ascending, want] : {std::pair{1, V{101, 202}}, {0, V{404, 303, 202}}}) {
    seen.clear();
    EXPECT_EQ(ListApplyToEach(l, ascending, record, &seen), -5);
    EXPECT_EQ(seen, want);
  }
  // A function that shrinks the list while walking.
  auto shrink = [](int index, void*, void* data) -> int {
    ListRemoveItem((ListType)data, nullptr, index);
    return 0;
  };
  EXPECT_EQ(ListApplyToEach(l, 1, shrink, (ListType)l), 0);
  EXPECT_EQ(Items(l), (V{2, 4}));
  EXPECT_EQ(ListApplyToEach(nullptr, 1, record, &seen), 0);

  ListType ptrs = ListCreate(sizeof(char*));
  for (int i = 0; i < 3; ++i) {
    char* s = (char*)malloc(8);
    ListInsertItem(ptrs, &s, 0);
  }
  ListDisposePtrList(ptrs);  // leaks show under the sanitizer build
}

}  // namespace
