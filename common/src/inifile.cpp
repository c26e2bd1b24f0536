// INI documents: creation, their section and item records, sorting and
// look-up (reading and parsing text is in iniread.cpp).  The reader never logs; the
// one message it prints is the perror line for a file that cannot be opened.
#include <errno.h>
#include <limits.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <ctype.h>

#include <algorithm>

#include "chartables.h"
#include "ini_internal.h"

// ---------------------------------------------------------------- name comparison

// Names are trimmed when stored, except a coalesced multi-line name that
// keeps the blank before "Line".  Sorting and binary search both use this
// one order (case-insensitive by tolower, the order of strcasecmp, with
// surrounding white space ignored), so a search always agrees with the
// order the list was sorted in; equality is the same as that of
// stricmpWithoutSurrWhiteSpace.
//
// Sorting and every look-up compare names many times over, so nothing is
// trimmed or measured up front: the names are walked once, equal bytes are
// taken without folding, and trailing white space is looked at only where
// the two names first differ.  The result is that of comparing the two
// trimmed names.
static bool OnlySpaceFrom(const CharTables& t, const char* p) {
  while (*p && t.space((unsigned char)*p)) ++p;
  return *p == 0;
}

static int CompareTrimmedNoCase(const char* a, const char* b) {
  if (!a || !b) return a ? 1 : (b ? -1 : 0);
  CharTables t;
  while (*a && t.space((unsigned char)*a)) ++a;
  while (*b && t.space((unsigned char)*b)) ++b;
  for (;; ++a, ++b) {
    unsigned char x = (unsigned char)*a, y = (unsigned char)*b;
    if (x == y) {
      if (!x) return 0;
      continue;
    }
    int ca = t.fold(x), cb = t.fold(y);
    if (ca == cb) continue;
    // First difference.  Up to here both names hold the same characters
    // (white space folds to itself only), so a name whose rest is all
    // white space ends here once trimmed: it is the shorter one, or both
    // trimmed names are equal.
    bool endA = OnlySpaceFrom(t, a), endB = OnlySpaceFrom(t, b);
    if (endA || endB) return endA && endB ? 0 : (endA ? -1 : 1);
    return ca < cb ? -1 : 1;
  }
}

// Keys compare as unsigned bytes: the order of the folded characters that
// CompareTrimmedNoCase uses, and a shorter key (its NUL) first.
static int KeyCompare(const char* a, const char* b) {
  while (*a && *a == *b) ++a, ++b;
  unsigned char x = (unsigned char)*a, y = (unsigned char)*b;
  return x == y ? 0 : (x < y ? -1 : 1);
}

// The first 8 bytes of a key as one big-endian number, zero-padded: two
// prefixes compare as the keys' first 8 bytes do under KeyCompare.
static unsigned long long KeyPrefix(const char* k) {
  unsigned long long p = 0;
  bool ended = false;
  for (int i = 0; i < 8; ++i) {
    unsigned char c = ended ? 0 : (unsigned char)k[i];
    ended = c == 0;
    p = p << 8 | c;
  }
  return p;
}

// KeyCompare with the prefixes deciding most comparisons at once.  Equal
// prefixes whose last byte is 0 are equal keys (both end within them);
// otherwise both keys go on past their eighth byte.
static inline int PrefixedCompare(const char* a, unsigned long long pa, const char* b, unsigned long long pb) {
  if (pa != pb) return pa < pb ? -1 : 1;
  if ((pa & 0xFF) == 0) return 0;
  return KeyCompare(a + 8, b + 8);
}

template <class R>
static inline int RecordKeyCompare(R x, R y) {
  return PrefixedCompare(x->key, x->keyPrefix, y->key, y->keyPrefix);
}

static int SectionNameCompare(const void* a, const void* b) {
  IniSection x, y;
  memcpy(&x, a, sizeof x);
  memcpy(&y, b, sizeof y);
  if (x->key && y->key) return RecordKeyCompare(x, y);
  return CompareTrimmedNoCase(x->sectionName, y->sectionName);
}

static int EntryNameCompare(const void* a, const void* b) {
  IniEntry x, y;
  memcpy(&x, a, sizeof x);
  memcpy(&y, b, sizeof y);
  if (x->key && y->key) return RecordKeyCompare(x, y);
  return CompareTrimmedNoCase(x->name, y->name);
}

// The trimmed extent of a name.
static void Trimmed(const CharTables& t, const char* name, const char** start, size_t* len) {
  while (*name && t.space((unsigned char)*name)) ++name;
  size_t n = strlen(name);
  while (n > 0 && t.space((unsigned char)name[n - 1])) --n;
  *start = name;
  *len = n;
}

// Returns whether the name holds a blank (only such a name can be part of a
// multi-line item).
static bool FoldInto(const CharTables& t, char* dst, const char* src, size_t n) {
  bool blank = false;
  for (size_t i = 0; i < n; ++i) {
    blank |= src[i] == ' ';
    dst[i] = (char)t.fold((unsigned char)src[i]);
  }
  dst[n] = 0;
  return blank;
}

// The key of a name given for a look-up, in buf (INI_LINE_BUF bytes), made
// in one pass; null for a name too long for it, which is then compared the
// slow way.
static char* LookupKey(const char* name, char* buf) {
  CharTables t;
  while (*name && t.space((unsigned char)*name)) ++name;
  size_t n = 0, end = 0;
  for (; name[n]; ++n) {
    if (n >= INI_LINE_BUF - 1) return nullptr;
    unsigned char c = (unsigned char)name[n];
    buf[n] = (char)t.fold(c);
    if (!t.space(c)) end = n + 1;
  }
  buf[end] = 0;
  return buf;
}

// ---------------------------------------------------------------- records

// An item is one record: the record, then its strings (name, value, key).
// Items are only ever created while reading and die with their document, so
// their records are carved out of blocks the document owns and freed with
// it, not one allocation each.  A string replaced later (coalescing) is a
// separate allocation of its own, freed with the item.
struct IniArenaBlock {
  IniArenaBlock* next;
  size_t used, size;
  alignas(16) char data[1];
};

static const size_t kArenaBlockSize = 16384;

static void* ArenaAlloc(IniText doc, size_t bytes) {
  bytes = (bytes + 15) & ~(size_t)15;
  IniArenaBlock* b = (IniArenaBlock*)doc->entryArena;
  if (!b || b->size - b->used < bytes) {
    size_t size = bytes > kArenaBlockSize ? bytes : kArenaBlockSize;
    IniArenaBlock* nb = (IniArenaBlock*)malloc(offsetof(IniArenaBlock, data) + size);
    if (!nb) return nullptr;
    nb->next = b;
    nb->used = 0;
    nb->size = size;
    doc->entryArena = nb;
    b = nb;
  }
  void* at = b->data + b->used;
  b->used += bytes;
  return at;
}

static void ArenaDispose(IniText doc) {
  for (IniArenaBlock* b = (IniArenaBlock*)doc->entryArena; b;) {
    IniArenaBlock* next = b->next;
    free(b);
    b = next;
  }
  doc->entryArena = nullptr;
}


// Lists of sections and items hold record pointers; internal walks read
// them in place.

// Frees what an item owns beyond its record: only a coalesced item (no key)
// has strings of its own.
void DisposeEntryStrings(IniEntry entry) {
  if (!entry || entry->key) return;
  char* name = InlineBase(entry, sizeof *entry);
  char* value = name + strlen(name) + 1;
  if (entry->name != name) free(entry->name);
  if (entry->value != value) free(entry->value);
}

void DisposeSection(IniSection section) {
  if (!section) return;
  if (section->sectionName != InlineBase(section, sizeof *section)) free(section->sectionName);
  int n = ListNumItems(section->entryList);
  IniEntry* e = Entries(section->entryList);
  for (int i = 0; i < n; ++i) DisposeEntryStrings(e[i]);
  ListDispose(section->entryList);
  ListDispose(section->internallySortedEntryList);
  free(section);
}

IniSection NewSection(const char* name, char sorted, int sourceLine) {
  if (!name) return nullptr;
  CharTables t;
  const char* start;
  size_t n;
  Trimmed(t, name, &start, &n);
  IniSection s = (IniSection)malloc(sizeof *s + 2 * (n + 1));
  if (!s) return nullptr;
  memset(s, 0, sizeof *s);
  s->sectionName = InlineBase(s, sizeof *s);
  memcpy(s->sectionName, start, n);
  s->sectionName[n] = 0;
  s->key = s->sectionName + n + 1;
  FoldInto(t, s->key, start, n);
  s->keyPrefix = KeyPrefix(s->key);
  s->entryList = ListCreate(sizeof(IniEntry));
  if (!s->entryList) {
    DisposeSection(s);
    return nullptr;
  }
  ListPreAllocate(s->entryList, 16);  // room for a typical section at once (a failure only defers it)
  s->sorted = sorted;
  s->sourceLine = sourceLine;
  return s;
}

IniEntry NewEntry(IniText doc, const char* name, const char* value, int sourceLine) {
  if (!name || !value) return nullptr;
  CharTables t;
  const char* start;
  size_t n;
  Trimmed(t, name, &start, &n);
  // The value as StrDupWithoutQuotes stores it.
  size_t vlen = strlen(value);
  int quoted = vlen >= 2 && value[0] == '"' && value[vlen - 1] == '"';
  const char* v = quoted ? value + 1 : value;
  if (quoted) vlen -= 2;
  IniEntry e = (IniEntry)ArenaAlloc(doc, sizeof *e + 2 * (n + 1) + vlen + 1);
  if (!e) return nullptr;
  e->name = InlineBase(e, sizeof *e);
  memcpy(e->name, start, n);
  e->name[n] = 0;
  e->value = e->name + n + 1;
  memcpy(e->value, v, vlen);
  e->value[vlen] = 0;
  e->key = e->value + vlen + 1;
  if (FoldInto(t, e->key, start, n)) doc->namesWithBlanks = 1;
  e->keyPrefix = KeyPrefix(e->key);
  e->addMarkerQuotes = quoted;
  e->sourceLine = sourceLine;
  return e;
}



// ---------------------------------------------------------------- documents

// Sections in [ ], name=value, ; comments: what every new document starts with.
static int Ini_SetDefaultTokens(IniText theIniText) { return Ini_SetTokens(theIniText, '[', ']', "=", ";"); }

IniText Ini_New(int sorted) {
  IniText doc = (IniText)calloc(1, sizeof *doc);
  if (!doc) return nullptr;
  doc->sectionList = ListCreate(sizeof(IniSection));
  doc->stringCache = NewHandle(0);
  if (!doc->sectionList || !doc->stringCache) {
    ListDispose(doc->sectionList);
    DisposeHandle(doc->stringCache);
    free(doc);
    return nullptr;
  }
  doc->sorted = sorted ? 1 : 0;
  doc->lastLineAccessed = -1;
  Ini_SetDefaultTokens(doc);
  doc->checkForDuplicatesWhenPutting = 1;
  return doc;
}

void Ini_Dispose(IniText theIniText) {
  if (!theIniText) return;
  int n = ListNumItems(theIniText->sectionList);
  for (int i = 1; i <= n; ++i) DisposeSection(SectionAt(theIniText, i));
  ListDispose(theIniText->sectionList);
  ListDispose(theIniText->internallySortedList);
  DisposeHandle(theIniText->stringCache);
  ArenaDispose(theIniText);
  free(theIniText);
}

// Tokens are stored NUL-terminated in 8-byte fields, so at most 7
// characters of a separator or marker are kept.
static void CopyToken(char* dest, const char* src) {
  size_t n = strlen(src);
  if (n > 7) n = 7;
  memcpy(dest, src, n);
  dest[n] = 0;
}

int Ini_SetTokens(IniText theIniText, char sectionNameStartCharacter, char sectionNameEndCharacter,
                  const char* valueSeparator, const char* commentMarker) {
  if (!theIniText) return -1;
  if (sectionNameStartCharacter) theIniText->sectionNameStartChar = sectionNameStartCharacter;
  if (sectionNameEndCharacter) theIniText->sectionNameEndChar = sectionNameEndCharacter;
  if (valueSeparator && *valueSeparator) CopyToken(theIniText->nameValueInputSeparatorToken, valueSeparator);
  if (commentMarker && *commentMarker) CopyToken(theIniText->commentMarker, commentMarker);
  theIniText->nameValueInputSeparatorLength = (int)strlen(theIniText->nameValueInputSeparatorToken);
  snprintf(theIniText->nameValueOutputSeparatorToken, sizeof theIniText->nameValueOutputSeparatorToken, " %s ",
           theIniText->nameValueInputSeparatorToken);
  theIniText->nameValueOutputSeparatorLength = (int)strlen(theIniText->nameValueOutputSeparatorToken);
  return 0;
}

int Ini_SetSectionFilter(IniText theIniText, Ini_SectionFilterFunc sectionFilter, void* callbackData) {
  if (!theIniText) return -1;
  theIniText->sectionFilter = sectionFilter;
  theIniText->sectionFilterCallbackData = callbackData;
  return 0;
}

int Ini_SetDuplicateChecking(IniText theIniText, int checkForDuplicates) {
  if (!theIniText) return -1;
  int previous = theIniText->checkForDuplicatesWhenPutting;
  theIniText->checkForDuplicatesWhenPutting = checkForDuplicates != 0;
  return previous;
}

// ---------------------------------------------------------------- sorting

// Sorts a list of sections or items.  When every record has its key and
// no two keys are equal, the sorted order is the only one there is, so any
// sort gives it: the keys are sorted inline (and a list already in order is
// left alone).  Equal keys, or a record without its key, go through the
// list's own quicksort, whose order of equal names look-ups depend on.
template <class R>
static void SortRecords(ListType list, CompareFunction compare) {
  int n = ListNumItems(list);
  if (n < 2) return;
  R* a = (R*)ListGetDataPtr(list);
  bool inOrder = true;
  for (int i = 0; i < n; ++i) {
    if (!a[i]->key) return ListQuickSort(list, compare);
    if (i > 0 && inOrder && RecordKeyCompare(a[i - 1], a[i]) >= 0) inOrder = false;
  }
  if (inOrder) return;
  R local[64];
  R* copy = n <= 64 ? local : (R*)malloc(sizeof(R) * (size_t)n);
  if (!copy) return ListQuickSort(list, compare);
  memcpy(copy, a, sizeof(R) * (size_t)n);
  bool distinct = true;
  if (n <= 32) {
    // A section's few items: insertion sort, which also sees every pair of
    // neighbours it settles.
    for (int i = 1; i < n && distinct; ++i) {
      R x = copy[i];
      int j = i;
      while (j > 0) {
        int c = RecordKeyCompare(copy[j - 1], x);
        if (c == 0) distinct = false;
        if (c <= 0) break;
        copy[j] = copy[j - 1];
        --j;
      }
      copy[j] = x;
    }
  } else {
    std::sort(copy, copy + n, [](R x, R y) { return RecordKeyCompare(x, y) < 0; });
    for (int i = 1; i < n && distinct; ++i) distinct = RecordKeyCompare(copy[i - 1], copy[i]) != 0;
  }
  if (distinct)
    memcpy(a, copy, sizeof(R) * (size_t)n);
  else
    ListQuickSort(list, compare);
  if (copy != local) free(copy);
}

void Ini_Sort(IniText theIniText) {
  if (!theIniText) return;
  int n = ListNumItems(theIniText->sectionList);
  for (int i = 1; i <= n; ++i) {
    IniSection s = SectionAt(theIniText, i);
    SortRecords<IniEntry>(s->entryList, EntryNameCompare);
    s->sorted = 1;
  }
  SortRecords<IniSection>(theIniText->sectionList, SectionNameCompare);
  theIniText->sorted = 1;
}

void Ini_DisableSorting(IniText theIniText) {
  if (!theIniText) return;
  int n = ListNumItems(theIniText->sectionList);
  for (int i = 1; i <= n; ++i) SectionAt(theIniText, i)->sorted = 0;
  theIniText->sorted = 0;
}

void Ini_DisableInternalSorting(IniText theIniText) {
  if (!theIniText) return;
  int n = ListNumItems(theIniText->sectionList);
  for (int i = 1; i <= n; ++i) {
    IniSection s = SectionAt(theIniText, i);
    ListDispose(s->internallySortedEntryList);
    s->internallySortedEntryList = nullptr;
  }
  ListDispose(theIniText->internallySortedList);
  theIniText->internallySortedList = nullptr;
}

int Ini_SortInternally(IniText theIniText) {
  if (!theIniText) return -1;
  int n = ListNumItems(theIniText->sectionList);
  for (int i = 1; i <= n; ++i) {
    IniSection s = SectionAt(theIniText, i);
    ListType copy = ListCopy(s->entryList);
    if (!copy) {
      Ini_DisableInternalSorting(theIniText);
      return -1;
    }
    SortRecords<IniEntry>(copy, EntryNameCompare);
    ListDispose(s->internallySortedEntryList);
    s->internallySortedEntryList = copy;
  }
  ListType copy = ListCopy(theIniText->sectionList);
  if (!copy) {
    Ini_DisableInternalSorting(theIniText);
    return -1;
  }
  SortRecords<IniSection>(copy, SectionNameCompare);
  ListDispose(theIniText->internallySortedList);
  theIniText->internallySortedList = copy;
  return 0;
}

// ---------------------------------------------------------------- look-up

// Binary search over a sorted list of records, probing the same positions
// as the list's own search (so among equal names the same one is found),
// with the comparison inline: the look-up key against a record's key, or
// the names folded on the fly where either key is missing.
static const char* NameOf(IniSection s) { return s->sectionName; }
static const char* NameOf(IniEntry e) { return e->name; }

template <class R>
static R SearchRecords(ListType list, const char* key, const char* name) {
  R* a = (R*)ListGetDataPtr(list);
  unsigned long long prefix = key ? KeyPrefix(key) : 0;
  int low = 0, high = ListNumItems(list) - 1;
  while (low <= high) {
    int mid = (int)(((unsigned)low + (unsigned)high) >> 1);
    R r = a[mid];
    int cmp = key && r->key ? PrefixedCompare(key, prefix, r->key, r->keyPrefix) : CompareTrimmedNoCase(name, NameOf(r));
    if (cmp == 0) return r;
    if (cmp > 0)
      low = mid + 1;
    else
      high = mid - 1;
  }
  return nullptr;
}

IniSection Ini_FindSection(IniText theIniText, const char* sectionName) {
  if (!theIniText || !sectionName) return nullptr;
  IniSection cached = theIniText->lastSectionAccessed;
  // Stored names are trimmed, so a name equal byte for byte is the same
  // name: the usual repeated look-up costs one strcmp.
  if (cached && (strcmp(cached->sectionName, sectionName) == 0 ||
                 stricmpWithoutSurrWhiteSpace(cached->sectionName, sectionName) == 0))
    return cached;
  IniSection found = nullptr;
  ListType list = theIniText->internallySortedList;
  if (list || theIniText->sorted) {
    if (!list) list = theIniText->sectionList;
    char keyBuf[INI_LINE_BUF];
    found = SearchRecords<IniSection>(list, LookupKey(sectionName, keyBuf), sectionName);
  } else {
    int n = ListNumItems(theIniText->sectionList);
    for (int i = 1; i <= n && !found; ++i) {
      IniSection s = SectionAt(theIniText, i);
      if (stricmpWithoutSurrWhiteSpace(s->sectionName, sectionName) == 0) found = s;
    }
  }
  if (found) theIniText->lastSectionAccessed = found;
  return found;
}

IniEntry Ini_FindEntry(IniSection section, const char* itemName) {
  if (!section || !itemName) return nullptr;
  IniEntry found = nullptr;
  ListType list = section->internallySortedEntryList;
  if (list || section->sorted) {
    if (!list) list = section->entryList;
    char keyBuf[INI_LINE_BUF];
    found = SearchRecords<IniEntry>(list, LookupKey(itemName, keyBuf), itemName);
  } else {
    int n = ListNumItems(section->entryList);
    for (int i = 1; i <= n && !found; ++i) {
      IniEntry e = EntryAt(section, i);
      if (stricmpWithoutSurrWhiteSpace(e->name, itemName) == 0) found = e;
    }
  }
  return found;
}

int Ini_NumberOfSections(IniText theIniText) {
  if (!theIniText) return -1;
  return ListNumItems(theIniText->sectionList);
}

int Ini_NthSectionName(IniText theIniText, int sectionIndex, char** sectionName) {
  if (!theIniText || !sectionName) return -1;
  if (sectionIndex < 1 || sectionIndex > ListNumItems(theIniText->sectionList)) return 0;
  *sectionName = SectionAt(theIniText, sectionIndex)->sectionName;
  return 1;
}

int Ini_NumberOfItems(IniText theIniText, const char* sectionName) {
  if (!theIniText) return -1;
  IniSection s = Ini_FindSection(theIniText, sectionName);
  return s ? ListNumItems(s->entryList) : 0;
}

int Ini_NthItemName(IniText theIniText, const char* sectionName, int itemIndex, char** itemName) {
  if (!theIniText || !itemName) return -1;
  IniSection s = Ini_FindSection(theIniText, sectionName);
  if (!s) return 0;
  if (itemIndex < 1 || itemIndex > ListNumItems(s->entryList)) return 0;
  *itemName = EntryAt(s, itemIndex)->name;
  return 1;
}

int Ini_SectionExists(IniText theIniText, const char* sectionName) {
  if (!theIniText) return -1;
  return Ini_FindSection(theIniText, sectionName) ? 1 : 0;
}

int Ini_RemoveSection(IniText theIniText, const char* sectionName) {
  if (!theIniText) return -1;
  IniSection s = Ini_FindSection(theIniText, sectionName);
  if (!s) return 0;
  if (theIniText->internallySortedList) {
    int at = ListFindItem(theIniText->internallySortedList, &s, 1, nullptr);
    if (at > 0) ListRemoveItem(theIniText->internallySortedList, nullptr, at);
  }
  int at = ListFindItem(theIniText->sectionList, &s, 1, nullptr);
  if (at > 0) ListRemoveItem(theIniText->sectionList, nullptr, at);
  if (theIniText->lastSectionAccessed == s) theIniText->lastSectionAccessed = nullptr;
  DisposeSection(s);
  return 1;
}

int Ini_LineOfLastAccess(IniText theIniText) { return theIniText ? theIniText->lastLineAccessed : -1; }
