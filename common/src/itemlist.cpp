// Relocatable handles and the growable item list.  A list is one handle whose
// block holds the header and then the items, so sorting, searching and
// comparing work on plain memory.
#include "itemlist.h"

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

// ---------------------------------------------------------------- handles

Handle NewHandle(unsigned int numBytes) {
  Handle h = (Handle)malloc(sizeof(HandleRecord));
  if (!h) return nullptr;
  h->data = nullptr;
  h->size = 0;
  if (numBytes > 0) {
    h->data = (char*)calloc(1, numBytes);
    if (!h->data) {
      free(h);
      return nullptr;
    }
    h->size = numBytes;
  }
  return h;
}

void DisposeHandle(Handle handle) {
  if (!handle) return;
  free(handle->data);
  free(handle);
}

unsigned int GetHandleSize(Handle handle) { return handle ? handle->size : 0; }

int SetHandleSize(Handle handle, unsigned int newSize) {
  if (!handle) return 0;
  if (newSize == handle->size) return 1;
  if (newSize == 0) {
    free(handle->data);
    handle->data = nullptr;
    handle->size = 0;
    return 1;
  }
  char* block = (char*)realloc(handle->data, newSize);
  if (!block) return 0;
  if (newSize > handle->size) memset(block + handle->size, 0, newSize - handle->size);
  handle->data = block;
  handle->size = newSize;
  return 1;
}

// ---------------------------------------------------------------- list basics

static const int kListSignature = 'T' | ('S' << 8) | ('I' << 16) | ('L' << 24);  // "TSIL" in memory

static inline ListStruct* Hdr(ListType list) { return (ListStruct*)list->data; }
static inline char* ItemPtr(ListType list, int position) {
  ListStruct* h = Hdr(list);
  return h->itemList + (size_t)h->itemSize * (size_t)(position - 1);
}

// Block size for a capacity; 0 when it does not fit the handle's size field.
static unsigned int BlockSizeFor(int itemSize, long long capacity) {
  unsigned long long bytes = sizeof(ListStruct) + (unsigned long long)itemSize * (unsigned long long)capacity;
  if (capacity < 0 || capacity > INT_MAX || bytes > UINT_MAX) return 0;
  return (unsigned int)bytes;
}

ListType ListCreate(int elementSize) {
  if (elementSize <= 0) return nullptr;  // an item must have a size
  ListType list = NewHandle(sizeof(ListStruct));
  if (!list) return nullptr;
  ListStruct* h = Hdr(list);
  h->signature = kListSignature;
  h->percentIncrease = 10;
  h->minNumItemsIncrease = 4;
  h->listSize = 0;
  h->itemSize = elementSize;
  h->numItems = 0;
  return list;
}

void ListDispose(ListType list) { DisposeHandle(list); }

void ListDisposePtrList(ListType list) {
  if (!list) return;
  int n = Hdr(list)->numItems;
  for (int i = 1; i <= n; ++i) {
    void* p;
    memcpy(&p, ItemPtr(list, i), sizeof p);
    free(p);
  }
  ListDispose(list);
}

void ListClear(ListType list) {
  if (list) Hdr(list)->numItems = 0;
}

void ListSetAllocationPolicy(ListType list, int minItemsPerAlloc, int percentIncreasePerAlloc) {
  if (!list) return;
  Hdr(list)->minNumItemsIncrease = minItemsPerAlloc;
  Hdr(list)->percentIncrease = percentIncreasePerAlloc;
}

// Grows the capacity.  A positive count adds exactly that many slots; 0 adds
// the automatic amount, max(minimum, listSize * (percent + 100) / 100), i.e.
// the whole scaled size; a negative count adds the automatic amount plus its
// magnitude.  Sizes that do not fit are refused, leaving the list unchanged.
static int ExpandListSpace(ListType list, int numNewItems) {
  if (!list) return 0;
  ListStruct* h = Hdr(list);
  long long slots;
  if (numNewItems > 0) {
    slots = numNewItems;
  } else {
    long long scaled = (long long)h->listSize * ((long long)h->percentIncrease + 100) / 100;
    slots = scaled > h->minNumItemsIncrease ? scaled : h->minNumItemsIncrease;
    slots -= (long long)numNewItems;
  }
  if (slots <= 0) return 0;
  long long capacity = (long long)h->listSize + slots;
  unsigned int bytes = BlockSizeFor(h->itemSize, capacity);
  if (bytes == 0) return 0;
  if (!SetHandleSize(list, bytes)) return 0;
  Hdr(list)->listSize = (int)capacity;
  return 1;
}

int ListPreAllocate(ListType list, int numItems) {
  if (!list) return 0;
  ListStruct* h = Hdr(list);
  int freeSlots = h->listSize - h->numItems;
  if (freeSlots >= numItems) return 1;
  return ExpandListSpace(list, numItems - freeSlots);
}

void ListCompact(ListType list) {
  if (!list) return;
  ListStruct* h = Hdr(list);
  unsigned int bytes = BlockSizeFor(h->itemSize, h->numItems);
  if (bytes && SetHandleSize(list, bytes)) Hdr(list)->listSize = Hdr(list)->numItems;
}

ListType ListCopy(ListType list) {
  if (!list) return nullptr;
  ListStruct* src = Hdr(list);
  ListType copy = ListCreate(src->itemSize);
  if (!copy) return nullptr;
  unsigned int bytes = BlockSizeFor(src->itemSize, src->numItems);
  if (!bytes || !SetHandleSize(copy, bytes)) {
    ListDispose(copy);
    return nullptr;
  }
  ListStruct* dst = Hdr(copy);
  dst->percentIncrease = src->percentIncrease;
  dst->minNumItemsIncrease = src->minNumItemsIncrease;
  dst->listSize = src->numItems;
  dst->numItems = src->numItems;
  memcpy(dst->itemList, src->itemList, (size_t)src->itemSize * (size_t)src->numItems);
  return copy;
}

int ListAppend(ListType list1, ListType list2) {
  if (!list2 || Hdr(list2)->numItems == 0) return 1;
  if (!list1) return 0;
  if (Hdr(list1)->itemSize != Hdr(list2)->itemSize) return 0;
  int n1 = Hdr(list1)->numItems, n2 = Hdr(list2)->numItems, size = Hdr(list1)->itemSize;
  unsigned int bytes = BlockSizeFor(size, (long long)n1 + n2);
  if (!bytes || !SetHandleSize(list1, bytes)) return 0;
  // list2 may be list1 itself: its items are read after the resize.
  memcpy(Hdr(list1)->itemList + (size_t)size * (size_t)n1, Hdr(list2)->itemList, (size_t)size * (size_t)n2);
  Hdr(list1)->numItems = n1 + n2;
  Hdr(list1)->listSize = n1 + n2;
  return 1;
}

int ListEqual(ListType list1, ListType list2) {
  if (list1 == list2) return 1;
  if (!list1 || !list2) return 0;
  ListStruct* a = Hdr(list1);
  ListStruct* b = Hdr(list2);
  if (a->numItems != b->numItems) return 0;
  size_t bytes = (size_t)a->itemSize * (size_t)a->numItems;
  // The bytes of list1's items are compared; a list2 of smaller items does
  // not hold that many, and is unequal rather than read past its block.
  if ((size_t)b->itemSize * (size_t)b->numItems < bytes) return 0;
  return memcmp(a->itemList, b->itemList, bytes) == 0;
}

// ---------------------------------------------------------------- items

int ListInsertItems(ListType list, const void* ptrToItems, int firstItemPosition, int numItemsToInsert) {
  if (!list || numItemsToInsert <= 0) return 0;
  int pos = firstItemPosition;
  int numItems = Hdr(list)->numItems;
  if (pos == numItems + 1) pos = END_OF_LIST;
  if (pos > numItems || pos < FRONT_OF_LIST) return 0;
  // Grow when full; grow as well when the free slots are too few for all
  // items, so that a multi-item insertion can never write past the block.
  if (numItems >= Hdr(list)->listSize || Hdr(list)->listSize - numItems < numItemsToInsert) {
    if (!ExpandListSpace(list, -numItemsToInsert)) return 0;
  }
  if (pos == FRONT_OF_LIST) pos = numItems > 0 ? 1 : END_OF_LIST;
  ListStruct* h = Hdr(list);
  size_t size = (size_t)h->itemSize;
  size_t bytes = size * (size_t)numItemsToInsert;
  char* dest;
  if (pos == END_OF_LIST) {
    dest = h->itemList + size * (size_t)numItems;
  } else {
    dest = h->itemList + size * (size_t)(pos - 1);
    memmove(dest + bytes, dest, size * (size_t)(numItems - pos + 1));
  }
  if (ptrToItems)
    memmove(dest, ptrToItems, bytes);
  else
    memset(dest, 0, bytes);
  h->numItems = numItems + numItemsToInsert;
  return 1;
}

int ListInsertItem(ListType list, const void* ptrToItem, int itemPosition) {
  return ListInsertItems(list, ptrToItem, itemPosition, 1);
}

// Resolves 0 (last item) and -1 (first item); other values pass unchanged.
static int ResolvePosition(ListType list, int position) {
  if (position == END_OF_LIST) return Hdr(list)->numItems;
  if (position == FRONT_OF_LIST) return 1;
  return position;
}

// A range is usable when the list holds items and it lies within them.
static int RangeOk(ListType list, int first, int count) {
  int n = Hdr(list)->numItems;
  if (count < 1 || n == 0 || first < 1) return 0;
  return (long long)first + count - 1 <= n;
}

void ListReplaceItems(ListType list, const void* ptrToItems, int firstItemPosition, int numItemsToReplace) {
  if (!list || !ptrToItems) return;
  int first = ResolvePosition(list, firstItemPosition);
  if (!RangeOk(list, first, numItemsToReplace)) return;
  memmove(ItemPtr(list, first), ptrToItems, (size_t)Hdr(list)->itemSize * (size_t)numItemsToReplace);
}

void ListReplaceItem(ListType list, const void* ptrToItem, int itemPosition) {
  ListReplaceItems(list, ptrToItem, itemPosition, 1);
}

void ListRemoveItems(ListType list, void* itemsDestination, int firstItemPosition, int numItemsToRemove) {
  if (!list) return;
  int n = Hdr(list)->numItems;
  if (numItemsToRemove < 1 || numItemsToRemove > n) return;
  int first = ResolvePosition(list, firstItemPosition);
  if (!RangeOk(list, first, numItemsToRemove)) return;
  size_t size = (size_t)Hdr(list)->itemSize;
  char* at = ItemPtr(list, first);
  if (itemsDestination) memmove(itemsDestination, at, size * (size_t)numItemsToRemove);
  memmove(at, at + size * (size_t)numItemsToRemove, size * (size_t)(n - first - numItemsToRemove + 1));
  Hdr(list)->numItems = n - numItemsToRemove;
}

void ListRemoveItem(ListType list, void* itemDestination, int itemPosition) {
  ListRemoveItems(list, itemDestination, itemPosition, 1);
}

void ListGetItems(ListType list, void* itemsDestination, int firstItemPosition, int numItemsToGet) {
  if (!list || !itemsDestination) return;
  int first = ResolvePosition(list, firstItemPosition);
  if (!RangeOk(list, first, numItemsToGet)) return;
  memmove(itemsDestination, ItemPtr(list, first), (size_t)Hdr(list)->itemSize * (size_t)numItemsToGet);
}

void ListGetItem(ListType list, void* itemDestination, int itemPosition) {
  ListGetItems(list, itemDestination, itemPosition, 1);
}

void* ListGetPtrToItem(ListType list, int itemPosition) {
  if (!list) return nullptr;
  int pos = ResolvePosition(list, itemPosition);
  if (!RangeOk(list, pos, 1)) return nullptr;
  return ItemPtr(list, pos);
}

void* ListGetDataPtr(ListType list) { return list ? Hdr(list)->itemList : nullptr; }

int ListGetItemSize(ListType list) { return list ? Hdr(list)->itemSize : 0; }

int ListNumItems(ListType list) { return list ? Hdr(list)->numItems : 0; }

// ---------------------------------------------------------------- walking and searching

int ListApplyToEach(ListType list, int ascending, ListApplicationFunc funcToApply, void* callbackData) {
  if (!list || !funcToApply) return 0;
  int result = 0;
  if (ascending) {
    for (int i = 1; i <= Hdr(list)->numItems; ++i) {
      result = funcToApply(i, ItemPtr(list, i), callbackData);
      if (result < 0) break;
    }
  } else {
    for (int i = Hdr(list)->numItems; i >= 1 && i <= Hdr(list)->numItems; --i) {
      result = funcToApply(i, ItemPtr(list, i), callbackData);
      if (result < 0) break;
    }
  }
  return result;
}

static inline int CompareListItems(CompareFunction fn, const void* a, const void* b, int size) {
  return fn ? fn(a, b) : ListMemBlockCmp(a, b, size);
}

int ListFindItem(ListType list, const void* ptrToItem, int startingPosition, CompareFunction compareFunction) {
  if (!list || !ptrToItem) return 0;
  int n = Hdr(list)->numItems;
  if (n == 0) return 0;
  int start = ResolvePosition(list, startingPosition);
  if (start < 1 || start > n) return 0;
  int size = Hdr(list)->itemSize;
  for (int i = start; i <= n; ++i)
    if (CompareListItems(compareFunction, ptrToItem, ItemPtr(list, i), size) == 0) return i;
  return 0;
}

int ListBinSearch(ListType list, const void* ptrToItem, CompareFunction compareFunction) {
  if (!list || !ptrToItem) return 0;
  ListStruct* h = Hdr(list);
  int r = BinSearch(h->itemList, h->numItems, h->itemSize, ptrToItem, compareFunction);
  return r >= 0 ? r + 1 : 0;
}

int ListIsSorted(ListType list, CompareFunction compareFunction) {
  if (!list) return 0;
  int n = Hdr(list)->numItems, size = Hdr(list)->itemSize;
  for (int i = 1; i < n; ++i)
    if (CompareListItems(compareFunction, ItemPtr(list, i), ItemPtr(list, i + 1), size) > 0) return 0;
  return 1;
}

int ListInsertInOrder(ListType list, const void* ptrToItem, CompareFunction compareFunction) {
  if (!list || !ptrToItem) return 0;
  ListStruct* h = Hdr(list);
  if (h->numItems == 0) return ListInsertItem(list, ptrToItem, FRONT_OF_LIST);
  int r = BinSearch(h->itemList, h->numItems, h->itemSize, ptrToItem, compareFunction);
  int pos;
  if (r >= 0) {
    pos = r + 1;
  } else {
    pos = -r;
    if (pos > h->numItems) pos = END_OF_LIST;
  }
  return ListInsertItem(list, ptrToItem, pos);
}

void ListRemoveDuplicates(ListType list, CompareFunction compareFunction) {
  if (!list) return;
  int size = Hdr(list)->itemSize;
  // The item being matched is copied out: removals move the block contents.
  char stackBuf[64];
  char* key = size <= (int)sizeof stackBuf ? stackBuf : (char*)malloc((size_t)size);
  if (!key) return;
  for (int i = 1; i < Hdr(list)->numItems; ++i) {
    memcpy(key, ItemPtr(list, i), (size_t)size);
    int at = i + 1;
    while (at <= Hdr(list)->numItems && (at = ListFindItem(list, key, at, compareFunction)) > 0)
      ListRemoveItem(list, nullptr, at);
  }
  if (key != stackBuf) free(key);
}

void ListQuickSort(ListType list, CompareFunction compareFunction) {
  if (!list || Hdr(list)->numItems == 0) return;
  QSort(Hdr(list)->itemList, Hdr(list)->numItems, Hdr(list)->itemSize, compareFunction);
}

void ListHeapSort(ListType list, CompareFunction compareFunction) {
  if (!list || Hdr(list)->numItems == 0) return;
  HeapSort(Hdr(list)->itemList, Hdr(list)->numItems, Hdr(list)->itemSize, compareFunction);
}

void ListInsertionSort(ListType list, CompareFunction compareFunction) {
  if (!list || Hdr(list)->numItems == 0) return;
  InsertionSort(Hdr(list)->itemList, Hdr(list)->numItems, Hdr(list)->itemSize, compareFunction);
}

// ---------------------------------------------------------------- existence registry

// Pointers sorted by their bytes.  No operation of this library creates or
// fills it, so it stays null and every object is unknown.
static ListType gExistenceList = nullptr;

int ObjectExists(const void* object) {
  if (!gExistenceList) return 0;
  return ListBinSearch(gExistenceList, &object, nullptr) > 0 ? 1 : 0;
}

void DeRegisterExistence(void* object) {
  if (!gExistenceList) return;
  int at = ListBinSearch(gExistenceList, &object, nullptr);
  if (at > 0) ListRemoveItem(gExistenceList, nullptr, at);
}
