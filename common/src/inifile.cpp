// INI documents: creation, reading from a file or a line source, the line
// parser, multi-line items, sorting and look-up.  The reader never logs; the
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

static char* InlineBase(void* record, size_t recordSize) { return (char*)record + recordSize; }

// Lists of sections and items hold record pointers; internal walks read
// them in place.
static inline IniSection* Sections(ListType list) { return (IniSection*)ListGetDataPtr(list); }
static inline IniEntry* Entries(ListType list) { return (IniEntry*)ListGetDataPtr(list); }

// Frees what an item owns beyond its record: only a coalesced item (no key)
// has strings of its own.
static void DisposeEntryStrings(IniEntry entry) {
  if (!entry || entry->key) return;
  char* name = InlineBase(entry, sizeof *entry);
  char* value = name + strlen(name) + 1;
  if (entry->name != name) free(entry->name);
  if (entry->value != value) free(entry->value);
}

static void DisposeSection(IniSection section) {
  if (!section) return;
  if (section->sectionName != InlineBase(section, sizeof *section)) free(section->sectionName);
  int n = ListNumItems(section->entryList);
  IniEntry* e = Entries(section->entryList);
  for (int i = 0; i < n; ++i) DisposeEntryStrings(e[i]);
  ListDispose(section->entryList);
  ListDispose(section->internallySortedEntryList);
  free(section);
}

static IniSection NewSection(const char* name, char sorted, int sourceLine) {
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

static IniEntry NewEntry(IniText doc, const char* name, const char* value, int sourceLine) {
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

static IniSection SectionAt(IniText doc, int n) { return Sections(doc->sectionList)[n - 1]; }

static IniEntry EntryAt(IniSection section, int n) { return Entries(section->entryList)[n - 1]; }

// ---------------------------------------------------------------- documents

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

int Ini_SetDefaultTokens(IniText theIniText) { return Ini_SetTokens(theIniText, '[', ']', "=", ";"); }

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

// ---------------------------------------------------------------- line parser

// Copies at most INI_MAX_LINE characters and terminates; every parse buffer
// holds INI_LINE_BUF bytes.
static void CopyBounded(char* dest, const char* src, size_t len) {
  if (len > INI_MAX_LINE) len = INI_MAX_LINE;
  memcpy(dest, src, len);
  dest[len] = 0;
}

static const char* SkipSpace(const CharTables& t, const char* p) {
  while (*p && t.space((unsigned char)*p)) ++p;
  return p;
}

int ParseTagTextSectionTitle(IniText theIniText, const char* text, char* sectionName) {
  if (!theIniText || !text || !sectionName) return -1;
  CharTables t;
  text = SkipSpace(t, text);
  const char* end = strrchr(text, theIniText->sectionNameEndChar);
  if (!end || theIniText->sectionNameEndChar == 0) return kIni_NotAnIniLine;
  if (*SkipSpace(t, end + 1)) return kIni_NotAnIniLine;
  size_t len = (size_t)(end - text);
  while (len > 0 && t.space((unsigned char)text[len - 1])) --len;
  if (len == 0) return kIni_NotAnIniLine;
  CopyBounded(sectionName, text, len);
  return kIni_SectionLine;
}

int ParseTagTextLine(IniText theIniText, const char* line, char* sectionName, char* itemName, char* value) {
  if (!theIniText || !line || !sectionName || !itemName || !value) return -1;
  CharTables t;
  const char* p = SkipSpace(t, line);
  const char* marker = theIniText->commentMarker;
  if (marker[0] && p[0] == marker[0] && strncmp(p, marker, strlen(marker)) == 0) return kIni_CommentLine;
  if (*p && *p == theIniText->sectionNameStartChar) return ParseTagTextSectionTitle(theIniText, p + 1, sectionName);
  const char* sep = theIniText->nameValueInputSeparatorToken;
  if (sep[0] == 0) return kIni_NotAnIniLine;
  size_t sepLen = sep[1] == 0 ? 1 : strlen(sep);
  const char* at = sepLen == 1 ? strchr(p, sep[0]) : strstr(p, sep);
  if (!at) return kIni_NotAnIniLine;
  size_t nameLen = (size_t)(at - p);
  while (nameLen > 0 && t.space((unsigned char)p[nameLen - 1])) --nameLen;
  if (nameLen == 0) return kIni_NotAnIniLine;
  const char* v = SkipSpace(t, at + sepLen);
  size_t valueLen = strlen(v);
  while (valueLen > 0 && t.space((unsigned char)v[valueLen - 1])) --valueLen;
  CopyBounded(itemName, p, nameLen);
  CopyBounded(value, v, valueLen);
  return kIni_TagAndValueLine;
}

char* StrDupWithoutQuotes(const char* value, int* hadQuotes) {
  if (hadQuotes) *hadQuotes = 0;
  if (!value) return nullptr;
  size_t len = strlen(value);
  if (len >= 2 && value[0] == '"' && value[len - 1] == '"') {
    char* copy = (char*)malloc(len - 1);
    if (!copy) return nullptr;
    memcpy(copy, value + 1, len - 2);
    copy[len - 2] = 0;
    if (hadQuotes) *hadQuotes = 1;
    return copy;
  }
  return StrDupl(value);
}

// ---------------------------------------------------------------- multi-line items

// 1 when the name is "<anything> Line<digits>" at its first " Line"; the
// number goes to *lineNumber.  Numbers beyond int are not line numbers.
int Ini_AnalyzeItemName(const char* name, int* lineNumber) {
  if (!name) return 0;
  const char* at = strstr(name, " Line");
  if (!at) return 0;
  const char* digits = at + 5;
  if (!isdigit((unsigned char)*digits)) return 0;
  for (const char* q = digits; *q; ++q)
    if (!isdigit((unsigned char)*q)) return 0;
  errno = 0;
  long n = strtol(digits, nullptr, 10);
  if (errno == ERANGE || n > INT_MAX) return 0;
  if (lineNumber) *lineNumber = (int)n;
  return 1;
}

// Groups are found loosely on purpose: a line 1 opens a group and every
// following multi-line item with another number joins it, whatever its
// base name or number.
int FindMultiLineItem(IniSection section, int start, int* first, int* last) {
  if (!section) return 0;
  int n = ListNumItems(section->entryList);
  for (int i = start < 1 ? 1 : start; i <= n; ++i) {
    int line;
    if (!Ini_AnalyzeItemName(EntryAt(section, i)->name, &line) || line != 1) continue;
    int end = i;
    while (end + 1 <= n && Ini_AnalyzeItemName(EntryAt(section, end + 1)->name, &line) && line != 1) ++end;
    if (first) *first = i;
    if (last) *last = end;
    return 1;
  }
  return 0;
}

int CoalesceMultiLineItems(IniSection section, int first, int last) {
  if (!section || first < 1 || last < first || last > ListNumItems(section->entryList)) return -1;
  size_t total = 1;
  for (int i = first; i <= last; ++i) total += strlen(EntryAt(section, i)->value);
  IniEntry head = EntryAt(section, first);
  const char* at = strstr(head->name, " Line");
  size_t prefixLen = at ? (size_t)(at - head->name) + 1 : strlen(head->name);  // keeps the blank
  char* value = (char*)malloc(total);
  char* name = (char*)malloc(prefixLen + 1);
  if (!value || !name) {
    free(value);
    free(name);
    return -1;
  }
  size_t used = 0;
  for (int i = first; i <= last; ++i) {
    const char* v = EntryAt(section, i)->value;
    size_t len = strlen(v);
    memcpy(value + used, v, len);
    used += len;
  }
  value[used] = 0;
  memcpy(name, head->name, prefixLen);
  name[prefixLen] = 0;
  for (int i = last; i > first; --i) {
    IniEntry e = nullptr;
    ListRemoveItem(section->entryList, &e, i);
    DisposeEntryStrings(e);  // the record itself goes with the document
  }
  char* inlineName = InlineBase(head, sizeof *head);
  if (head->value != inlineName + strlen(inlineName) + 1) free(head->value);
  if (head->name != inlineName) free(head->name);
  head->value = value;
  head->name = name;
  head->key = nullptr;  // the name changed: compared by folding from now on
  return 0;
}

int Ini_CoalesceAllMultiLineItems(IniText theIniText) {
  if (!theIniText) return -1;
  if (!theIniText->namesWithBlanks) return 0;  // no item name can end in " Line<digits>"
  int n = ListNumItems(theIniText->sectionList);
  for (int s = 1; s <= n; ++s) {
    IniSection section = SectionAt(theIniText, s);
    int first, last, start = 1;
    while (FindMultiLineItem(section, start, &first, &last)) {
      if (CoalesceMultiLineItems(section, first, last) < 0) return -1;
      start = first + 1;
    }
  }
  return 0;
}

// ---------------------------------------------------------------- reading

int Ini_ReadGeneric(IniText theIniText, Ini_LineSourceFunc inputFunction, void* inputSource) {
  if (!theIniText || !inputFunction) return -1;
  int wasInternallySorted = theIniText->internallySortedList != nullptr;
  char line[INI_LINE_BUF], sectionName[INI_LINE_BUF], itemName[INI_LINE_BUF], value[INI_LINE_BUF];
  IniSection current = nullptr;
  int status = 0;
  for (;;) {
    int endOfSource = 0, lineNum = 0;
    line[0] = 0;
    status = inputFunction(inputSource, line, INI_MAX_LINE, &endOfSource, &lineNum);
    line[INI_LINE_BUF - 1] = 0;  // whatever the source did, the line ends inside the buffer
    if (status < 0) break;
    if (endOfSource) {
      status = Ini_CoalesceAllMultiLineItems(theIniText);
      if (status >= 0 && theIniText->sorted) Ini_Sort(theIniText);
      break;
    }
    sectionName[0] = itemName[0] = value[0] = 0;
    int kind = ParseTagTextLine(theIniText, line, sectionName, itemName, value);
    if (kind < 0) {
      status = kind;
      break;
    }
    if (kind == kIni_SectionLine) {
      current = nullptr;
      if (theIniText->sectionFilter &&
          !theIniText->sectionFilter(theIniText, theIniText->sectionFilterCallbackData, sectionName))
        continue;
      IniSection s = NewSection(sectionName, theIniText->sorted, lineNum);
      if (!s) {
        status = -1;
        break;
      }
      // Appending fails only when the list cannot grow: an allocation failure.
      if (!ListInsertItem(theIniText->sectionList, &s, END_OF_LIST)) {
        DisposeSection(s);
        status = -1;
        break;
      }
      current = s;
    } else if (kind == kIni_TagAndValueLine && current) {
      IniEntry e = NewEntry(theIniText, itemName, value, lineNum);
      if (!e) {
        status = -1;
        break;
      }
      if (!ListInsertItem(current->entryList, &e, END_OF_LIST)) {
        status = -1;
        break;
      }
    }
  }
  if (wasInternallySorted) return Ini_SortInternally(theIniText);
  return status;
}

int Ini_LineFileInputFunction(void* inputSource, char* inputBuffer, int maxLineLength, int* endOfSource,
                              int* lineNumRead) {
  LineFile lf = (LineFile)inputSource;
  int status = LineFile_ReadNonEmpty(lf, inputBuffer, maxLineLength, nullptr, endOfSource);
  if (status >= 0 && lineNumRead) *lineNumRead = LineFile_NumLinesRead(lf);
  return status;
}

int Ini_ReadFromFile(IniText theIniText, const char* pathName) {
  if (!theIniText) return -1;
  FILE* f = pathName ? fopen(pathName, "rb") : nullptr;
  if (!f) {
    if (!pathName) errno = EINVAL;
    perror("Can't open file");
    return -1;
  }
  LineFile lf = LineFile_New(LineFile_ReadFromFile, f);
  if (!lf) {
    fclose(f);
    return -1;
  }
  int status = Ini_ReadGeneric(theIniText, Ini_LineFileInputFunction, lf);
  LineFile_Dispose(lf);
  fclose(f);
  return status;
}

// ---------------------------------------------------------------- line reader

LineFile LineFile_New(LineFileReadFunc inputFunc, void* inputSource) {
  LineFile lf = (LineFile)calloc(1, sizeof *lf);
  if (!lf) return nullptr;
  lf->inputSource = inputSource;
  lf->inputFunc = inputFunc ? inputFunc : LineFile_ReadFromFile;
  lf->currBufLoc = lf->fileBuf;
  lf->offsetOfLastLine = -1;
  return lf;
}

void LineFile_Dispose(LineFile lineFile) { free(lineFile); }

// destBuf must hold maxNumBytes + 1 bytes (the line and its NUL).
int LineFile_Read(LineFile lineFile, char* destBuf, int maxNumBytes, int* bytesRead, int* endOfFile) {
  if (!lineFile || !endOfFile || !destBuf) return -1;
  if (maxNumBytes < 0) maxNumBytes = 0;
  *endOfFile = 0;
  lineFile->offsetOfLastLine = lineFile->numBytesRead - lineFile->numBytesLeftInBuf;
  lineFile->numExtraLineTermChars = 0;
  int stored = 0, taken = 0, lineEnded = 0;
  for (;;) {
    if (lineFile->numBytesLeftInBuf <= 0) {
      int got = 0;
      int status = lineFile->inputFunc(lineFile->inputSource, LINEFILE_BUF_SIZE, &got, lineFile->fileBuf);
      if (status < 0) {
        destBuf[stored] = 0;
        if (bytesRead) *bytesRead = stored;
        return status;
      }
      if (got < 0) got = 0;
      if (got > LINEFILE_BUF_SIZE) got = LINEFILE_BUF_SIZE;  // a source cannot claim more than it was given
      lineFile->numBytesRead += got;
      lineFile->numBytesLeftInBuf = got;
      lineFile->currBufLoc = lineFile->fileBuf;
      if (got == 0) {
        if (stored == 0)
          *endOfFile = 1;
        else
          lineEnded = 1;
        break;
      }
    }
    int c = (unsigned char)*lineFile->currBufLoc++;
    lineFile->numBytesLeftInBuf--;
    taken++;
    if (c != '\n' && c != '\r' && c != 0) {
      if (stored < maxNumBytes) destBuf[stored++] = (char)c;
      continue;
    }
    if (taken > 1) {
      lineFile->prevLineTermChar = c;
      lineEnded = 1;
      break;
    }
    if (c != lineFile->prevLineTermChar) {
      // second half of CR LF or LF CR
      lineFile->offsetOfLastLine++;
      lineFile->numExtraLineTermChars++;
      continue;
    }
    lineEnded = 1;  // an empty line
    break;
  }
  destBuf[stored] = 0;
  if (bytesRead) *bytesRead = stored;
  if (lineEnded) lineFile->numLinesRead++;
  return 0;
}

int LineFile_ReadNonEmpty(LineFile lineFile, char* destBuf, int maxNumBytes, int* bytesRead, int* endOfFile) {
  if (!lineFile || !endOfFile || !destBuf) return -1;
  int skipped = 0, status;
  for (;;) {
    int len = 0;
    status = LineFile_Read(lineFile, destBuf, maxNumBytes, &len, endOfFile);
    if (bytesRead) *bytesRead = len;
    if (status < 0 || *endOfFile || HasNonWhiteSpace(destBuf)) break;
    skipped += len + lineFile->numExtraLineTermChars + 1;
  }
  lineFile->numCharsInEmptyLines = skipped;
  return status;
}

int LineFile_NumLinesRead(LineFile lineFile) { return lineFile ? lineFile->numLinesRead : 0; }
int LineFile_OffsetOfLastLine(LineFile lineFile) { return lineFile ? lineFile->offsetOfLastLine : 0; }
int LineFile_NumExtraLineTermChars(LineFile lineFile) { return lineFile ? lineFile->numExtraLineTermChars : 0; }
int LineFile_NumCharsInEmptyLines(LineFile lineFile) { return lineFile ? lineFile->numCharsInEmptyLines : 0; }

int LineFile_ReadFromFile(void* inputSource, int numBytesToRead, int* numBytesRead, void* dest) {
  FILE* f = (FILE*)inputSource;
  size_t got = 0;
  if (f && dest && numBytesToRead > 0) got = fread(dest, 1, (size_t)numBytesToRead, f);
  if (numBytesRead) *numBytesRead = (int)got;
  if (!f || ferror(f)) return -1;
  return 0;
}
