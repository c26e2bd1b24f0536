// Reading INI text: the line parser, multi-line items, reading from a line
// source or a file, and the buffered line reader.  The reader never logs; the
// one message it prints is the perror line for a file that cannot be opened.
#include <errno.h>
#include <limits.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <ctype.h>

#include "chartables.h"
#include "ini_internal.h"

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
