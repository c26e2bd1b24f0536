// Handles and the item list: positions, growth, compaction, copying,
// appending, ordered insertion and duplicate removal.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "itemlist.h"

namespace {

std::vector<int> Items(ListType l) {
  std::vector<int> v(ListNumItems(l));
  for (int i = 1; i <= (int)v.size(); ++i) ListGetItem(l, &v[i - 1], i);
  return v;
}

int Capacity(ListType l) { return ((ListStruct*)l->data)->listSize; }

ListType ListOf(std::initializer_list<int> values) {
  ListType l = ListCreate(sizeof(int));
  for (int v : values) EXPECT_EQ(ListInsertItem(l, &v, END_OF_LIST), 1);
  return l;
}

TEST(Handles, SizeChangesZeroFillAndKeepContents) {
  Handle h = NewHandle(4);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(GetHandleSize(h), 4u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(h->data[i], 0);
  memcpy(h->data, "abcd", 4);
  EXPECT_EQ(SetHandleSize(h, 4), 1);
  ASSERT_EQ(SetHandleSize(h, 100), 1);
  EXPECT_EQ(0, memcmp(h->data, "abcd", 4));
  for (int i = 4; i < 100; ++i) ASSERT_EQ(h->data[i], 0);
  EXPECT_EQ(SetHandleSize(h, 0), 1);
  EXPECT_EQ(GetHandleSize(h), 0u);
  DisposeHandle(h);
  Handle empty = NewHandle(0);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->data, nullptr);
  DisposeHandle(empty);
  DisposeHandle(nullptr);
}

TEST(List, InsertPositions) {
  ListType l = ListOf({1, 2, 3});
  int v = 9;
  EXPECT_EQ(ListInsertItem(l, &v, 5), 0);  // numItems + 2 refused
  EXPECT_EQ(ListInsertItem(l, &v, -2), 0);
  EXPECT_EQ(ListInsertItem(l, &v, 4), 1);  // numItems + 1 appends
  v = 0;
  EXPECT_EQ(ListInsertItem(l, &v, -1), 1);  // front of a non-empty list
  v = 7;
  EXPECT_EQ(ListInsertItem(l, &v, 3), 1);
  EXPECT_EQ(Items(l), (std::vector<int>{0, 1, 7, 2, 3, 9}));
  EXPECT_EQ(ListInsertItems(l, nullptr, 2, 2), 1);  // zero-filled
  EXPECT_EQ(Items(l), (std::vector<int>{0, 0, 0, 1, 7, 2, 3, 9}));
  EXPECT_EQ(ListInsertItems(l, &v, 1, 0), 0);
  ListDispose(l);

  ListType e = ListCreate(sizeof(int));
  v = 5;
  EXPECT_EQ(ListInsertItem(e, &v, -1), 1);  // -1 on an empty list appends
  EXPECT_EQ(Items(e), std::vector<int>{5});
  ListDispose(e);
}

TEST(List, GetReplaceRemoveSpecialPositions) {
  ListType l = ListOf({10, 20, 30, 40});
  int v = 0;
  ListGetItem(l, &v, 0);
  EXPECT_EQ(v, 40);
  ListGetItem(l, &v, -1);
  EXPECT_EQ(v, 10);
  v = 99;
  ListReplaceItem(l, &v, 0);
  v = 11;
  ListReplaceItem(l, &v, -1);
  EXPECT_EQ(Items(l), (std::vector<int>{11, 20, 30, 99}));
  int two[2] = {1, 2};
  ListReplaceItems(l, two, 4, 2);  // runs past the end: nothing
  EXPECT_EQ(Items(l), (std::vector<int>{11, 20, 30, 99}));
  ListRemoveItems(l, nullptr, 1, 5);  // more than held: nothing
  EXPECT_EQ(ListNumItems(l), 4);
  ListRemoveItem(l, &v, 0);
  EXPECT_EQ(v, 99);
  ListRemoveItem(l, &v, -1);
  EXPECT_EQ(v, 11);
  EXPECT_EQ(Items(l), (std::vector<int>{20, 30}));
  int out[2] = {0, 0};
  ListGetItems(l, out, 1, 3);  // out of range: untouched
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(ListGetPtrToItem(l, 3), nullptr);
  EXPECT_EQ(*(int*)ListGetPtrToItem(l, 2), 30);
  EXPECT_EQ(ListGetPtrToItem(nullptr, 1), nullptr);
  ListDispose(l);
}

TEST(List, GrowthSizes) {
  ListType l = ListCreate(sizeof(int));
  int v = 1;
  ListInsertItem(l, &v, 0);
  EXPECT_EQ(Capacity(l), 5);  // minimum 4 plus the one inserted
  for (int i = 0; i < 4; ++i) ListInsertItem(l, &v, 0);
  EXPECT_EQ(Capacity(l), 5);
  ListInsertItem(l, &v, 0);
  EXPECT_EQ(Capacity(l), 5 + 5 * 110 / 100 + 1);  // the whole scaled size plus the item
  ListDispose(l);

  ListType big = ListCreate(1);
  ASSERT_EQ(ListPreAllocate(big, 100), 1);
  EXPECT_EQ(Capacity(big), 100);
  ASSERT_EQ(ListInsertItems(big, nullptr, 0, 100), 1);
  char c = 0;
  ASSERT_EQ(ListInsertItem(big, &c, 0), 1);
  EXPECT_EQ(Capacity(big), 100 + 110 + 1);
  EXPECT_EQ(GetHandleSize(big), sizeof(ListStruct) + 211u);
  ListDispose(big);
}

TEST(List, MultiItemInsertIntoTooFewFreeSlotsGrows) {
  ListType l = ListCreate(sizeof(int));
  ListPreAllocate(l, 3);
  int v = 1;
  ListInsertItem(l, &v, 0);  // 2 free slots remain
  std::vector<int> many(50);
  for (int i = 0; i < 50; ++i) many[i] = i + 100;
  ASSERT_EQ(ListInsertItems(l, many.data(), 1, 50), 1);
  EXPECT_GE(Capacity(l), 51);
  EXPECT_LE(GetHandleSize(l), sizeof(ListStruct) + 4u * Capacity(l));
  std::vector<int> expect = many;
  expect.push_back(1);
  EXPECT_EQ(Items(l), expect);
  ListDispose(l);
}

TEST(List, PreAllocateAndCompact) {
  ListType l = ListOf({1, 2, 3});
  int cap = Capacity(l);
  EXPECT_EQ(ListPreAllocate(l, cap - 3), 1);
  EXPECT_EQ(Capacity(l), cap);
  EXPECT_EQ(ListPreAllocate(l, cap - 3 + 7), 1);
  EXPECT_EQ(Capacity(l), cap + 7);
  ListCompact(l);
  EXPECT_EQ(Capacity(l), 3);
  EXPECT_EQ(GetHandleSize(l), sizeof(ListStruct) + 12u);
  EXPECT_EQ(Items(l), (std::vector<int>{1, 2, 3}));
  ListClear(l);
  ListCompact(l);
  EXPECT_EQ(Capacity(l), 0);
  EXPECT_EQ(GetHandleSize(l), sizeof(ListStruct));
  ListDispose(l);
  EXPECT_EQ(ListPreAllocate(nullptr, 3), 0);
}

TEST(List, CopyAppendEqual) {
  ListType a = ListOf({1, 2, 3});
  ListSetAllocationPolicy(a, 9, 50);
  ListType c = ListCopy(a);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(Capacity(c), 3);
  EXPECT_EQ(((ListStruct*)c->data)->minNumItemsIncrease, 9);
  EXPECT_EQ(((ListStruct*)c->data)->percentIncrease, 50);
  EXPECT_EQ(ListEqual(a, c), 1);
  EXPECT_EQ(ListEqual(a, a), 1);
  EXPECT_EQ(ListEqual(a, nullptr), 0);
  int v = 4;
  ListInsertItem(c, &v, 0);
  EXPECT_EQ(ListEqual(a, c), 0);

  EXPECT_EQ(ListAppend(a, c), 1);
  EXPECT_EQ(Items(a), (std::vector<int>{1, 2, 3, 1, 2, 3, 4}));
  EXPECT_EQ(Capacity(a), 7);
  EXPECT_EQ(ListAppend(a, a), 1);  // appending a list to itself
  EXPECT_EQ(ListNumItems(a), 14);
  EXPECT_EQ(Items(a)[13], 4);
  ListType bytes = ListCreate(1);
  char ch = 1;
  ListInsertItem(bytes, &ch, 0);
  EXPECT_EQ(ListAppend(a, bytes), 0);
  EXPECT_EQ(ListNumItems(a), 14);
  EXPECT_EQ(ListAppend(a, nullptr), 1);
  EXPECT_EQ(ListAppend(nullptr, c), 0);
  EXPECT_EQ(ListEqual(bytes, a), 0);  // smaller items, never read past
  ListDispose(bytes);
  ListDispose(a);
  ListDispose(c);
}

TEST(List, OrderedInsertionAndSearch) {
  ListType l = ListCreate(sizeof(int));
  for (int v : {5, 1, 9, 5, 3, 7, 1}) ASSERT_EQ(ListInsertInOrder(l, &v, IntCompare), 1);
  EXPECT_EQ(Items(l), (std::vector<int>{1, 1, 3, 5, 5, 7, 9}));
  EXPECT_EQ(ListIsSorted(l, IntCompare), 1);
  int k = 7;
  EXPECT_EQ(ListBinSearch(l, &k, IntCompare), 6);
  k = 8;
  EXPECT_EQ(ListBinSearch(l, &k, IntCompare), 0);
  k = 5;
  EXPECT_EQ(ListFindItem(l, &k, 1, IntCompare), 4);
  EXPECT_EQ(ListFindItem(l, &k, 5, IntCompare), 5);
  EXPECT_EQ(ListFindItem(l, &k, 6, IntCompare), 0);
  EXPECT_EQ(ListFindItem(l, &k, 8, IntCompare), 0);
  k = 9;
  EXPECT_EQ(ListFindItem(l, &k, 0, nullptr), 7);  // 0 starts at the last item
  ListDispose(l);

  // an equal value goes directly before the equal item the search hit
  struct P { int key, tag; };
  ListType p = ListCreate(sizeof(P));
  P items[] = {{1, 0}, {2, 0}, {3, 0}};
  ListInsertItems(p, items, 0, 3);
  P n = {2, 1};
  ListInsertInOrder(p, &n, IntCompare);
  P got;
  ListGetItem(p, &got, 2);
  EXPECT_EQ(got.tag, 1);
  ListDispose(p);
}

TEST(List, RemoveDuplicatesKeepsFirstAndOrder) {
  ListType l = ListOf({3, 1, 3, 2, 1, 3, 4, 2});
  ListRemoveDuplicates(l, IntCompare);
  EXPECT_EQ(Items(l), (std::vector<int>{3, 1, 2, 4}));
  ListDispose(l);
}

TEST(List, SortsAndApply) {
  for (auto sorter : {ListQuickSort, ListHeapSort, ListInsertionSort}) {
    ListType l = ListOf({9, -3, 7, 0, 7, 2});
    sorter(l, IntCompare);
    EXPECT_EQ(Items(l), (std::vector<int>{-3, 0, 2, 7, 7, 9}));
    ListDispose(l);
  }
  ListType l = ListOf({1, 2, 3, 4});
  std::vector<int> seen;
  auto record = [](int index, void* item, void* data) -> int {
    static_cast<std::vector<int>*>(data)->push_back(index * 100 + *(int*)item);
    return *(int*)item == 2 ? -5 : 1;
  };
  EXPECT_EQ(ListApplyToEach(l, 1, record, &seen), -5);
  EXPECT_EQ(seen, (std::vector<int>{101, 202}));
  seen.clear();
  EXPECT_EQ(ListApplyToEach(l, 0, record, &seen), -5);
  EXPECT_EQ(seen, (std::vector<int>{404, 303, 202}));
  // a function that shrinks the list while walking
  auto shrink = [](int index, void*, void* data) -> int {
    ListRemoveItem(*(ListType*)data, nullptr, index);
    return 0;
  };
  EXPECT_EQ(ListApplyToEach(l, 1, shrink, &l), 0);
  EXPECT_EQ(Items(l), (std::vector<int>{2, 4}));
  ListDispose(l);
  EXPECT_EQ(ListApplyToEach(nullptr, 1, record, &seen), 0);
}

TEST(List, PointerListAndRegistry) {
  ListType l = ListCreate(sizeof(char*));
  for (int i = 0; i < 3; ++i) {
    char* s = (char*)malloc(8);
    ListInsertItem(l, &s, 0);
  }
  ListDisposePtrList(l);  // leaks show under the sanitizer build
  int x;
  EXPECT_EQ(ObjectExists(&x), 0);
  EXPECT_EQ(ObjectExists(nullptr), 0);
  DeRegisterExistence(&x);
  DeRegisterExistence(nullptr);
}

}  // namespace
