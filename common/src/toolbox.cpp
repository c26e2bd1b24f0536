// Sorting, searching, string and number helpers of the configuration reader.
// Nothing here logs; failures are reported by results only.
#include "toolbox.h"

#include "chartables.h"

#include <ctype.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

// ---------------------------------------------------------------- compare functions

int ShortCompare(const void* a, const void* b) {
  short x, y;
  memcpy(&x, a, sizeof x);
  memcpy(&y, b, sizeof y);
  return x < y ? -1 : (x > y ? 1 : 0);
}

int IntCompare(const void* a, const void* b) {
  int x, y;
  memcpy(&x, a, sizeof x);
  memcpy(&y, b, sizeof y);
  return x < y ? -1 : (x > y ? 1 : 0);
}

// Unordered values (NaN) compare equal.
int FloatCompare(const void* a, const void* b) {
  float x, y;
  memcpy(&x, a, sizeof x);
  memcpy(&y, b, sizeof y);
  if (x < y) return -1;
  if (x > y) return 1;
  return 0;
}

int DoubleCompare(const void* a, const void* b) {
  double x, y;
  memcpy(&x, a, sizeof x);
  memcpy(&y, b, sizeof y);
  if (x < y) return -1;
  if (x > y) return 1;
  return 0;
}

int CStringCompare(const void* a, const void* b) {
  const char* x;
  const char* y;
  memcpy(&x, a, sizeof x);
  memcpy(&y, b, sizeof y);
  return strcmp(x, y);
}

int CStringNoCaseCompare(const void* a, const void* b) {
  const char* x;
  const char* y;
  memcpy(&x, a, sizeof x);
  memcpy(&y, b, sizeof y);
  return strcasecmp(x, y);
}

int ListMemBlockCmp(const void* a, const void* b, int len) {
  if (len <= 0) return 0;
  return memcmp(a, b, (size_t)len);
}

// A missing compare function means raw byte comparison over the item size.
static inline int CompareItems(CompareFunction fn, const void* a, const void* b, int size) {
  return fn ? fn(a, b) : ListMemBlockCmp(a, b, size);
}

// ---------------------------------------------------------------- searching

int BinSearch(const void* array, int numElems, int elemSize, const void* key, CompareFunction compareFunc) {
  const char* base = (const char*)array;
  int low = 0, high = numElems - 1, mid = 0, cmp = -1;
  if (!array || elemSize <= 0) high = -1;
  while (low <= high) {
    mid = (int)(((unsigned)low + (unsigned)high) >> 1);
    cmp = CompareItems(compareFunc, key, base + (size_t)mid * (size_t)elemSize, elemSize);
    if (cmp == 0) return mid;
    if (cmp > 0)
      low = mid + 1;
    else
      high = mid - 1;
  }
  return cmp < 0 ? -(mid + 1) : -(mid + 2);
}

// ---------------------------------------------------------------- exchanging

void SwapBlock(void* block1, void* block2, int size) {
  if (size <= 0 || block1 == block2) return;
  if ((size & 3) == 0 && ((uintptr_t)block1 & 3) == 0 && ((uintptr_t)block2 & 3) == 0) {
    uint32_t* a = (uint32_t*)block1;
    uint32_t* b = (uint32_t*)block2;
    for (int n = size / 4; n > 0; --n, ++a, ++b) {
      uint32_t t = *a;
      *a = *b;
      *b = t;
    }
  } else {
    unsigned char* a = (unsigned char*)block1;
    unsigned char* b = (unsigned char*)block2;
    for (int n = size; n > 0; --n, ++a, ++b) {
      unsigned char t = *a;
      *a = *b;
      *b = t;
    }
  }
}

// Exchanges two items of the given size.
typedef void (*ExgFunc)(void* item1, void* item2, int size);

static void ExchgB(void* a, void* b, int size) {
  unsigned char* x = (unsigned char*)a;
  unsigned char* y = (unsigned char*)b;
  for (int n = size; n > 0; --n, ++x, ++y) {
    unsigned char t = *x;
    *x = *y;
    *y = t;
  }
}

// Item storage need not be aligned, hence the word copies through memcpy.
static void ExchgW(void* a, void* b, int size) {
  char* x = (char*)a;
  char* y = (char*)b;
  for (int n = size / 2; n > 0; --n, x += 2, y += 2) {
    uint16_t s, t;
    memcpy(&s, x, 2);
    memcpy(&t, y, 2);
    memcpy(x, &t, 2);
    memcpy(y, &s, 2);
  }
}

static void ExchgL(void* a, void* b, int size) {
  char* x = (char*)a;
  char* y = (char*)b;
  for (int n = size / 4; n > 0; --n, x += 4, y += 4) {
    uint32_t s, t;
    memcpy(&s, x, 4);
    memcpy(&t, y, 4);
    memcpy(x, &t, 4);
    memcpy(y, &s, 4);
  }
}

// ---------------------------------------------------------------- quick sort

static char* MedOf3(char* left, char* right, ExgFunc exchange, CompareFunction compare, int size) {
  char* mid = left + ((right - left) / size / 2) * size;
  if (CompareItems(compare, left, mid, size) > 0) exchange(left, mid, size);
  if (CompareItems(compare, left, right, size) > 0) exchange(left, right, size);
  if (CompareItems(compare, mid, right, size) > 0) exchange(mid, right, size);
  return mid;
}

// The median of three goes to the slot before right; the scans never leave
// [left, pivot slot] and each round moves both of them, so a compare function
// that is inconsistent cannot make this loop forever or step outside the range.
static char* Partition(char* left, char* right, ExgFunc exchange, CompareFunction compare, int size) {
  if (right <= left) return left;
  char* pivot = right - size;
  char* mid = MedOf3(left, right, exchange, compare, size);
  if (pivot <= left) return left;  // fewer than three items: already ordered
  if (mid != pivot) exchange(mid, pivot, size);
  char* i = left;
  char* j = pivot;
  for (;;) {
    do {
      i += size;
    } while (i < pivot && CompareItems(compare, i, pivot, size) < 0);
    do {
      j -= size;
    } while (j > left && CompareItems(compare, j, pivot, size) > 0);
    if (i < j)
      exchange(i, j, size);
    else
      break;
  }
  if (i != pivot) exchange(i, pivot, size);
  return i;
}

void QSort(char* array, int numElems, int elemSize, CompareFunction cmpFn) {
  if (!array || numElems < 2 || elemSize <= 0) return;
  ExgFunc exchange;
  if (elemSize & 1)
    exchange = ExchgB;
  else if (elemSize % 4 == 2)
    exchange = ExchgW;
  else
    exchange = ExchgL;

  // Ranges still to do, as (left, right) pairs.  Only the larger part of a
  // partition is pushed, so the depth stays logarithmic; when the stack is
  // nevertheless full the part is left as it is.
  char* stack[100];
  int idx = 0;
  char* left = array;
  char* right = array + (size_t)(numElems - 1) * (size_t)elemSize;
  while (idx >= 0) {
    if (right <= left) {
      if (idx > 1) {
        right = stack[--idx];
        left = stack[--idx];
      } else {
        idx -= 2;
      }
      continue;
    }
    long n = (right - left) / elemSize + 1;
    if (n == 2) {
      if (CompareItems(cmpFn, left, right, elemSize) > 0) exchange(left, right, elemSize);
      left = right;
      continue;
    }
    if (n == 3) {
      MedOf3(left, right, exchange, cmpFn, elemSize);
      left = right;
      continue;
    }
    char* part = Partition(left, right, exchange, cmpFn, elemSize);
    if (part - left > right - part) {
      if (part - elemSize != left && idx <= 97) {
        stack[idx++] = left;
        stack[idx++] = part - elemSize;
      }
      left = part;
    } else {
      if (part + elemSize != right && idx <= 97) {
        stack[idx++] = part + elemSize;
        stack[idx++] = right;
      }
      right = part;
    }
  }
}

// ---------------------------------------------------------------- heap sort

// Heap positions are 1-based: item k lives at base + (k - 1) * size.
static inline char* HeapItem(char* base, int k, int size) { return base + (size_t)(k - 1) * (size_t)size; }

static void FilterUpToCorrectHeapLocation(char* base, int k, int size, CompareFunction cmp) {
  while (k > 1) {
    int parent = k / 2;
    if (CompareItems(cmp, HeapItem(base, k, size), HeapItem(base, parent, size), size) < 1) break;
    SwapBlock(HeapItem(base, k, size), HeapItem(base, parent, size), size);
    k = parent;
  }
}

static void FilterDownToCorrectHeapPosition(char* base, int n, int size, CompareFunction cmp) {
  int i = 1;
  for (;;) {
    int child = 2 * i;
    if (child > n || child < i) break;
    if (child + 1 <= n &&
        CompareItems(cmp, HeapItem(base, child, size), HeapItem(base, child + 1, size), size) < 0)
      child++;
    if (CompareItems(cmp, HeapItem(base, i, size), HeapItem(base, child, size), size) >= 0) break;
    SwapBlock(HeapItem(base, i, size), HeapItem(base, child, size), size);
    i = child;
  }
}

void HeapSort(void* array, int numElems, int elemSize, CompareFunction cmpFn) {
  if (!array || numElems < 2 || elemSize <= 0) return;
  char* base = (char*)array;
  for (int k = 2; k <= numElems; ++k) FilterUpToCorrectHeapLocation(base, k, elemSize, cmpFn);
  for (int k = numElems; k >= 2; --k) {
    SwapBlock(HeapItem(base, 1, elemSize), HeapItem(base, k, elemSize), elemSize);
    FilterDownToCorrectHeapPosition(base, k - 1, elemSize, cmpFn);
  }
}

void InsertionSort(void* array, int numElements, int elemSize, CompareFunction cmpFn) {
  if (!array || numElements < 2 || elemSize <= 0) return;
  char* base = (char*)array;
  for (int i = 1; i < numElements; ++i) {
    for (int j = i; j > 0; --j) {
      char* cur = base + (size_t)j * (size_t)elemSize;
      char* prev = cur - elemSize;
      if (CompareItems(cmpFn, prev, cur, elemSize) < 1) break;
      SwapBlock(prev, cur, elemSize);
    }
  }
}

// ---------------------------------------------------------------- strings

static inline int IsSpace(char c) { return CharTables().space((unsigned char)c); }

char* StrDupl(const char* str) {
  if (!str) return nullptr;
  size_t n = strlen(str) + 1;
  char* copy = (char*)malloc(n);
  if (copy) memcpy(copy, str, n);
  return copy;
}

char* SkipWhiteSpace(const char* str) {
  if (!str) return nullptr;
  CharTables t;
  while (*str && t.space((unsigned char)*str)) ++str;
  return (char*)str;
}

char* SkipNonWhiteSpace(const char* str) {
  if (!str) return nullptr;
  while (*str && !IsSpace(*str)) ++str;
  return (char*)str;
}

int HasNonWhiteSpace(const char* str) {
  if (!str) return 0;
  return *SkipWhiteSpace(str) != 0;
}

void RemoveSurroundingWhiteSpace(char* str) {
  if (!str) return;
  char* start = SkipWhiteSpace(str);
  size_t len = strlen(start);
  while (len > 0 && IsSpace(start[len - 1])) --len;
  memmove(str, start, len);
  str[len] = 0;
}

char* StrDupWithoutSurrWhiteSpace(const char* str) {
  if (!str) return nullptr;
  const char* start = SkipWhiteSpace(str);
  size_t len = strlen(start);
  while (len > 0 && IsSpace(start[len - 1])) --len;
  char* copy = (char*)malloc(len + 1);
  if (!copy) return nullptr;
  memcpy(copy, start, len);
  copy[len] = 0;
  return copy;
}

// Number of characters of add to use: all of it for a negative count or one
// beyond its length.
static size_t CharsToUse(const char* add, int n) {
  size_t len = strlen(add);
  if (n < 0 || (size_t)n > len) return len;
  return (size_t)n;
}

int AppendString(char** str, const char* stringToAdd, int numCharsToAdd) {
  if (!str) return 0;
  if (!stringToAdd || numCharsToAdd == 0) return 1;
  size_t add = CharsToUse(stringToAdd, numCharsToAdd);
  size_t old = *str ? strlen(*str) : 0;
  char* grown = (char*)realloc(*str, old + add + 1);
  if (!grown) return 0;
  memcpy(grown + old, stringToAdd, add);
  grown[old + add] = 0;
  *str = grown;
  return 1;
}

int AddStringPrefix(char** str, const char* prefixToAdd, int numCharsToAdd) {
  if (!str) return 0;
  if (!prefixToAdd) return 1;
  size_t add = CharsToUse(prefixToAdd, numCharsToAdd);
  size_t old = *str ? strlen(*str) : 0;
  char* grown = (char*)realloc(*str, old + add + 1);
  if (!grown) return 0;
  if (old == 0) grown[0] = 0;  // a fresh block holds no text yet
  memmove(grown + add, grown, old + 1);
  memcpy(grown, prefixToAdd, add);
  *str = grown;
  return 1;
}

int AddStringQuotes(char** str) {
  if (!AppendString(str, "\"", 1)) return 0;
  return AddStringPrefix(str, "\"", 1);
}

int stricmpWithoutSurrWhiteSpace(const char* s1, const char* s2) {
  if (!s1 && !s2) return 0;
  if (!s1) return -1;
  if (!s2) return 1;
  CharTables t;
  while (*s1 && t.space((unsigned char)*s1)) ++s1;
  while (*s2 && t.space((unsigned char)*s2)) ++s2;
  while (*s1 && *s2) {
    if (*s1 == *s2) {  // equal bytes are equal in any case; only differing ones are folded
      ++s1;
      ++s2;
      continue;
    }
    signed char c1 = (signed char)t.up((unsigned char)*s1);
    signed char c2 = (signed char)t.up((unsigned char)*s2);
    if (c1 != c2) return c1 < c2 ? -1 : 1;
    ++s1;
    ++s2;
  }
  if (!*s1) {
    while (*s2 && t.space((unsigned char)*s2)) ++s2;
    return *s2 ? -1 : 0;
  }
  while (*s1 && t.space((unsigned char)*s1)) ++s1;
  return *s1 ? 1 : 0;
}

int SpliceCommaSeparatedList(const char* list1, const char* list2, char** result) {
  if (!result) return -1;
  const char* p1 = list1 ? list1 : "";
  const char* p2 = list2 ? list2 : "";
  char* out = StrDupl("");
  if (!out) {
    *result = nullptr;
    return -1;
  }
  for (;;) {
    const char* e1 = strchr(p1, ',');
    const char* e2 = strchr(p2, ',');
    size_t n1 = e1 ? (size_t)(e1 - p1) : strlen(p1);
    size_t n2 = e2 ? (size_t)(e2 - p2) : strlen(p2);
    int ok = 1;
    if (n1 > 0)
      ok = AppendString(&out, p1, (int)n1);
    else if (n2 > 0)
      ok = AppendString(&out, p2, (int)n2);
    if (ok && (e1 || e2)) ok = AppendString(&out, ",", 1);
    if (!ok) {
      free(out);
      *result = nullptr;
      return -1;
    }
    if (!e1 && !e2) break;
    p1 = e1 ? e1 + 1 : p1 + n1;  // a list that has run out stays at its end
    p2 = e2 ? e2 + 1 : p2 + n2;
  }
  *result = out;
  return 0;
}

// ---------------------------------------------------------------- numbers

int ConvertNumStrToUint(const char* str, unsigned int* value, int* negative) {
  enum { kLeading, kAfterSign, kDigits, kTrailing } state = kLeading;
  if (negative) *negative = 0;
  if (!str) return 0;
  unsigned int v = 0;
  int neg = 0, sawDigit = 0;
  CharTables t;
  for (const char* p = str; *p; ++p) {
    char c = *p;
    if (c >= '0' && c <= '9') {  // digits first: they are most of every number
      if (state == kTrailing) return 0;
      unsigned d = (unsigned)(c - '0');
      if (v > 429496729u || (v == 429496729u && d > 5)) return 0;
      v = v * 10 + d;
      sawDigit = 1;
      state = kDigits;
    } else if (t.space((unsigned char)c)) {
      if (state != kLeading) state = kTrailing;
    } else if (c == '+' || c == '-') {
      if (state != kLeading) return 0;
      neg = (c == '-');
      state = kAfterSign;
    } else {
      return 0;
    }
  }
  if (!sawDigit) return 0;
  if (value) *value = v;
  if (negative) *negative = neg;
  return 1;
}

int StrToInt(const char* str, int* value) {
  unsigned int mag;
  int neg;
  if (!ConvertNumStrToUint(str, &mag, &neg)) return 0;
  if (neg ? mag > 2147483648u : mag > 2147483647u) return 0;
  if (value) *value = neg ? (int)(-(long long)mag) : (int)mag;
  return 1;
}

int StrToUInt(const char* str, unsigned int* value) {
  unsigned int mag;
  int neg;
  if (!ConvertNumStrToUint(str, &mag, &neg)) return 0;
  if (neg) return 0;
  if (value) *value = mag;
  return 1;
}

// ---------------------------------------------------------------- binary data as text

int ConvertDataToText(const unsigned char* data, int size, unsigned char** text) {
  if (!text) return 0;
  if (size < 0 || !data) size = 0;
  size_t groups = (size_t)size / 3, rem = (size_t)size % 3;
  size_t len = 4 * groups + (rem ? rem + 1 : 0);
  unsigned char* out = (unsigned char*)malloc(len + 1);
  *text = out;
  if (!out) return 0;
  unsigned char* t = out;
  const unsigned char* d = data;
  for (size_t g = 0; g < groups; ++g, d += 3) {
    *t++ = (unsigned char)('0' + (((d[0] >> 2) & 0x30) | ((d[1] >> 4) & 0x0C) | (d[2] >> 6)));
    *t++ = (unsigned char)('0' + (d[0] & 0x3F));
    *t++ = (unsigned char)('0' + (d[1] & 0x3F));
    *t++ = (unsigned char)('0' + (d[2] & 0x3F));
  }
  if (rem == 1) {
    *t++ = (unsigned char)('0' + ((d[0] >> 2) & 0x30));
    *t++ = (unsigned char)('0' + (d[0] & 0x3F));
  } else if (rem == 2) {
    *t++ = (unsigned char)('0' + (((d[0] >> 2) & 0x30) | ((d[1] >> 4) & 0x0C)));
    *t++ = (unsigned char)('0' + (d[0] & 0x3F));
    *t++ = (unsigned char)('0' + (d[1] & 0x3F));
  }
  *t = 0;
  return 1;
}

// Characters are not validated: whatever they hold is taken modulo 64.
static inline unsigned SixBits(unsigned char c) { return (unsigned)(unsigned char)(c - '0') & 0x3F; }

int ConvertTextToData(const unsigned char* textPtr, int* dataSize, unsigned char** dataPtr) {
  size_t len = textPtr ? strlen((const char*)textPtr) : 0;
  size_t groups = len / 4, rem = len % 4;
  size_t bytes = 3 * groups + (rem >= 2 ? rem - 1 : 0);
  if (bytes > 0x7FFFFFFF) bytes = 0;  // not representable in the int size
  if (dataSize) *dataSize = (int)bytes;
  if (bytes == 0) return 1;
  if (!dataPtr) return 1;
  unsigned char* out = (unsigned char*)malloc(bytes);
  *dataPtr = out;
  if (!out) return 0;
  const unsigned char* t = textPtr;
  unsigned char* d = out;
  for (size_t g = 0; g < groups; ++g, t += 4) {
    unsigned top = SixBits(t[0]);
    *d++ = (unsigned char)(SixBits(t[1]) | ((top << 2) & 0xC0));
    *d++ = (unsigned char)(SixBits(t[2]) | ((top << 4) & 0xC0));
    *d++ = (unsigned char)(SixBits(t[3]) | ((top << 6) & 0xC0));
  }
  if (rem >= 2) {
    unsigned top = SixBits(t[0]);
    *d++ = (unsigned char)(SixBits(t[1]) | ((top << 2) & 0xC0));
    if (rem == 3) *d++ = (unsigned char)(SixBits(t[2]) | ((top << 4) & 0xC0));
  }
  return 1;
}
