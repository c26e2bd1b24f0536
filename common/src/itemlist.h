// Relocatable memory handles and the growable item list kept in one of them.
// Items are fixed-size byte records addressed by 1-based positions; 0 means
// the end of the list and -1 its front.
#ifndef KV_ITEMLIST_H
#define KV_ITEMLIST_H

#include "kvexport.h"
#include "toolbox.h"

// A handle points to this record; code keeps the handle, never the data
// pointer across a resize.
typedef struct HandleRecordTag {
  char* data;          // the block, null when the size is 0
  unsigned int size;   // the block size in bytes
} HandleRecord;
typedef HandleRecord* Handle;

KV_EXPORT Handle NewHandle(unsigned int numBytes);
KV_EXPORT void DisposeHandle(Handle handle);
KV_EXPORT unsigned int GetHandleSize(Handle handle);
KV_EXPORT int SetHandleSize(Handle handle, unsigned int newSize);

// The block of a list starts with this header; the items follow directly
// from itemList on.
typedef struct ListStructTag {
  int signature;            // "TSIL" in this byte order
  int percentIncrease;
  int minNumItemsIncrease;
  int listSize;             // capacity in items
  int itemSize;
  int numItems;
  char itemList[1];         // first byte of the item storage
} ListStruct;

typedef Handle ListType;

// Positions other than 1-based item numbers.
#define END_OF_LIST 0
#define FRONT_OF_LIST (-1)

typedef int (*ListApplicationFunc)(int index, void* ptrToItem, void* callbackData);

KV_EXPORT ListType ListCreate(int elementSize);
KV_EXPORT void ListDispose(ListType list);
KV_EXPORT void ListDisposePtrList(ListType list);
KV_EXPORT void ListClear(ListType list);
KV_EXPORT void ListSetAllocationPolicy(ListType list, int minItemsPerAlloc, int percentIncreasePerAlloc);
KV_EXPORT int ListPreAllocate(ListType list, int numItems);
KV_EXPORT void ListCompact(ListType list);
KV_EXPORT ListType ListCopy(ListType list);
KV_EXPORT int ListAppend(ListType list1, ListType list2);
KV_EXPORT int ListEqual(ListType list1, ListType list2);

KV_EXPORT int ListInsertItem(ListType list, const void* ptrToItem, int itemPosition);
KV_EXPORT int ListInsertItems(ListType list, const void* ptrToItems, int firstItemPosition, int numItemsToInsert);
KV_EXPORT void ListReplaceItem(ListType list, const void* ptrToItem, int itemPosition);
KV_EXPORT void ListReplaceItems(ListType list, const void* ptrToItems, int firstItemPosition, int numItemsToReplace);
KV_EXPORT void ListRemoveItem(ListType list, void* itemDestination, int itemPosition);
KV_EXPORT void ListRemoveItems(ListType list, void* itemsDestination, int firstItemPosition, int numItemsToRemove);
KV_EXPORT void ListGetItem(ListType list, void* itemDestination, int itemPosition);
KV_EXPORT void ListGetItems(ListType list, void* itemsDestination, int firstItemPosition, int numItemsToGet);
KV_EXPORT void* ListGetPtrToItem(ListType list, int itemPosition);
KV_EXPORT void* ListGetDataPtr(ListType list);
KV_EXPORT int ListGetItemSize(ListType list);
KV_EXPORT int ListNumItems(ListType list);

KV_EXPORT int ListApplyToEach(ListType list, int ascending, ListApplicationFunc funcToApply, void* callbackData);
KV_EXPORT int ListFindItem(ListType list, const void* ptrToItem, int startingPosition, CompareFunction compareFunction);
KV_EXPORT int ListBinSearch(ListType list, const void* ptrToItem, CompareFunction compareFunction);
KV_EXPORT int ListIsSorted(ListType list, CompareFunction compareFunction);
KV_EXPORT int ListInsertInOrder(ListType list, const void* ptrToItem, CompareFunction compareFunction);
KV_EXPORT void ListRemoveDuplicates(ListType list, CompareFunction compareFunction);
KV_EXPORT void ListQuickSort(ListType list, CompareFunction compareFunction);
KV_EXPORT void ListHeapSort(ListType list, CompareFunction compareFunction);
KV_EXPORT void ListInsertionSort(ListType list, CompareFunction compareFunction);

// The existence registry: nothing in this library registers objects, so it
// stays empty.
KV_EXPORT int ObjectExists(const void* object);
KV_EXPORT void DeRegisterExistence(void* object);

#endif
