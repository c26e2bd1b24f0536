// Records and internal routines of the INI reader, shared by its source
// files and white-box tests.  Nothing here is exported.
#ifndef KV_INI_INTERNAL_H
#define KV_INI_INTERNAL_H

#include "inifile.h"

#define INI_MAX_LINE 255      // longest line handed to the parser
#define INI_LINE_BUF 256      // parse buffers hold a line and its NUL
#define LINEFILE_BUF_SIZE 2048
#define STRING_CACHE_BLOCK 1024

struct IniStructForwardReferenceTag {
  ListType sectionList;
  ListType internallySortedList;
  IniSection lastSectionAccessed;
  char sorted;
  int lastLineAccessed;
  int nameValueInputSeparatorLength;
  char nameValueInputSeparatorToken[8];
  int nameValueOutputSeparatorLength;
  char nameValueOutputSeparatorToken[10];
  char sectionNameStartChar;
  char sectionNameEndChar;
  char commentMarker[8];
  int checkForDuplicatesWhenPutting;
  Ini_SectionFilterFunc sectionFilter;
  void* sectionFilterCallbackData;
  Handle stringCache;
  void* entryArena;     // the blocks the item records live in
  char namesWithBlanks;  // some item read so far has a blank in its name
};

// Sections and items keep, beside their name, its sort key: the trimmed
// name folded to lower case once, when it is stored, so that sorting and
// binary search compare plain bytes (the first eight of them as one number).  A null key (a name changed after it
// was stored) makes comparisons fold the name itself.
struct IniSectionStructTag {
  char* sectionName;
  ListType entryList;
  ListType internallySortedEntryList;
  char sorted;
  int sourceLine;
  char* key;
  unsigned long long keyPrefix;  // the key's first 8 bytes, big-endian, zero-padded
};

struct _iniEntryStruct {
  char* name;
  char* value;
  int sourceLine;
  int addMarkerQuotes;
  char* key;
  unsigned long long keyPrefix;
};

struct LineFileForwardReferenceTag {
  void* inputSource;
  LineFileReadFunc inputFunc;
  char fileBuf[LINEFILE_BUF_SIZE];
  int numBytesLeftInBuf;
  char* currBufLoc;
  int numLinesRead;
  int numBytesRead;
  int prevLineTermChar;
  int offsetOfLastLine;
  int numExtraLineTermChars;
  int numCharsInEmptyLines;
};

int ParseTagTextLine(IniText theIniText, const char* line, char* sectionName, char* itemName, char* value);
int ParseTagTextSectionTitle(IniText theIniText, const char* text, char* sectionName);
char* StrDupWithoutQuotes(const char* value, int* hadQuotes);
int Ini_AnalyzeItemName(const char* name, int* lineNumber);
int FindMultiLineItem(IniSection section, int start, int* first, int* last);
int CoalesceMultiLineItems(IniSection section, int first, int last);
int Ini_CoalesceAllMultiLineItems(IniText theIniText);
int Ini_LineFileInputFunction(void* inputSource, char* inputBuffer, int maxLineLength, int* endOfSource,
                              int* lineNumRead);
IniSection Ini_FindSection(IniText theIniText, const char* sectionName);
IniEntry Ini_FindEntry(IniSection section, const char* itemName);
int SetStringCacheSize(IniText theIniText, unsigned int size);
int UnescapeText(const char* src, char* dest);
int GetHexCharValue(char c);

// Record helpers shared by the document code (inifile.cpp) and the reader
// (iniread.cpp).  A record's name is stored right behind the record.
inline char* InlineBase(void* record, size_t recordSize) { return (char*)record + recordSize; }
inline IniSection* Sections(ListType list) { return (IniSection*)ListGetDataPtr(list); }
inline IniEntry* Entries(ListType list) { return (IniEntry*)ListGetDataPtr(list); }
inline IniSection SectionAt(IniText doc, int n) { return Sections(doc->sectionList)[n - 1]; }
inline IniEntry EntryAt(IniSection section, int n) { return Entries(section->entryList)[n - 1]; }
IniSection NewSection(const char* name, char sorted, int sourceLine);
IniEntry NewEntry(IniText doc, const char* name, const char* value, int sourceLine);
void DisposeEntryStrings(IniEntry entry);
void DisposeSection(IniSection section);

#endif
