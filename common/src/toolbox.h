// Sorting, searching and string helpers under the configuration reader and
// its item list: fixed-size item arrays sorted with a caller's compare
// function, small heap-string utilities, strict decimal parsing and the text
// encoding used for binary INI values.
#ifndef KV_TOOLBOX_H
#define KV_TOOLBOX_H

#include "kvexport.h"

// Compares two items (the searched-for or left item first): <0, 0 or >0.
typedef int (*CompareFunction)(const void* item1, const void* item2);

// ---------------------------------------------------------------- compare
KV_EXPORT int ShortCompare(const void* a, const void* b);
KV_EXPORT int IntCompare(const void* a, const void* b);
KV_EXPORT int FloatCompare(const void* a, const void* b);
KV_EXPORT int DoubleCompare(const void* a, const void* b);
KV_EXPORT int CStringCompare(const void* a, const void* b);
KV_EXPORT int CStringNoCaseCompare(const void* a, const void* b);
KV_EXPORT int ListMemBlockCmp(const void* a, const void* b, int len);

// ---------------------------------------------------------------- arrays
// Index (0-based) of an equal item, or -(1-based position in front of which
// the key belongs).
KV_EXPORT int BinSearch(const void* array, int numElems, int elemSize, const void* key, CompareFunction compareFunc);
KV_EXPORT void SwapBlock(void* block1, void* block2, int size);
KV_EXPORT void QSort(char* array, int numElems, int elemSize, CompareFunction cmpFn);
KV_EXPORT void HeapSort(void* array, int numElems, int elemSize, CompareFunction cmpFn);
KV_EXPORT void InsertionSort(void* array, int numElements, int elemSize, CompareFunction cmpFn);

// ---------------------------------------------------------------- strings
KV_EXPORT char* StrDupl(const char* str);
KV_EXPORT char* SkipWhiteSpace(const char* str);
KV_EXPORT char* SkipNonWhiteSpace(const char* str);
KV_EXPORT int HasNonWhiteSpace(const char* str);
KV_EXPORT void RemoveSurroundingWhiteSpace(char* str);
KV_EXPORT char* StrDupWithoutSurrWhiteSpace(const char* str);
KV_EXPORT int AppendString(char** str, const char* stringToAdd, int numCharsToAdd);
KV_EXPORT int AddStringPrefix(char** str, const char* prefixToAdd, int numCharsToAdd);
KV_EXPORT int AddStringQuotes(char** str);
KV_EXPORT int stricmpWithoutSurrWhiteSpace(const char* s1, const char* s2);
KV_EXPORT int SpliceCommaSeparatedList(const char* list1, const char* list2, char** result);

// ---------------------------------------------------------------- numbers
KV_EXPORT int ConvertNumStrToUint(const char* str, unsigned int* value, int* negative);
KV_EXPORT int StrToInt(const char* str, int* value);
KV_EXPORT int StrToUInt(const char* str, unsigned int* value);

// ---------------------------------------------------------------- binary data as text
KV_EXPORT int ConvertDataToText(const unsigned char* data, int size, unsigned char** text);
KV_EXPORT int ConvertTextToData(const unsigned char* textPtr, int* dataSize, unsigned char** dataPtr);

#endif
