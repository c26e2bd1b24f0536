// Typed access to the values of an INI document: raw and unescaped strings,
// integers, doubles, booleans and binary data.  1 found, 0 not found (outputs
// of the numeric getters untouched), -1 bad argument or no conversion.
#include <errno.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "ini_internal.h"

// ---------------------------------------------------------------- helpers

// The cache is sized in whole 1 KiB blocks, one block more than an exact
// multiple needs.
int SetStringCacheSize(IniText theIniText, unsigned int size) {
  if (!theIniText || !theIniText->stringCache) return -1;
  unsigned long long want = ((unsigned long long)size / STRING_CACHE_BLOCK + 1) * STRING_CACHE_BLOCK;
  if (want > 0xFFFFFFFFull) return -1;
  return SetHandleSize(theIniText->stringCache, (unsigned int)want) ? 0 : -1;
}

int GetHexCharValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// dest holds at least as many bytes as src: no escape produces more than it
// consumes.  A non-hex digit after \x enters the sum as -1 (lenient on
// purpose); an \x that runs into the end of the text ends the output there
// rather than read past the terminator.
int UnescapeText(const char* src, char* dest) {
  if (!src || !dest) return 0;
  while (*src) {
    if (*src != '\\') {
      *dest++ = *src++;
      continue;
    }
    char c = src[1];
    if (c == 0) break;  // a trailing backslash is dropped
    src += 2;
    switch (c) {
      case 'n': *dest++ = '\n'; break;
      case 'r': *dest++ = '\r'; break;
      case 't': *dest++ = '\t'; break;
      case 'x': {
        if (src[0] == 0 || src[1] == 0) {
          *dest = 0;
          return 0;
        }
        *dest++ = (char)(16 * GetHexCharValue(src[0]) + GetHexCharValue(src[1]));
        src += 2;
        break;
      }
      default: *dest++ = c; break;
    }
  }
  *dest = 0;
  return 0;
}

// ---------------------------------------------------------------- raw access

int Ini_Get(IniText theIniText, const char* sectionName, const char* itemName, char** value) {
  if (value) *value = nullptr;
  if (!theIniText) return -1;
  IniSection section = Ini_FindSection(theIniText, sectionName);
  if (!section) return 0;
  IniEntry entry = Ini_FindEntry(section, itemName);
  if (!entry) return 0;
  if (value) *value = entry->value;
  theIniText->lastLineAccessed = entry->sourceLine;
  return 1;
}

int Ini_GetPointerToRawString(IniText dest, const char* sectionName, const char* itemName, char** destStr) {
  return Ini_Get(dest, sectionName, itemName, destStr);
}

int Ini_ItemExists(IniText theIniText, const char* sectionName, const char* itemName) {
  return Ini_Get(theIniText, sectionName, itemName, nullptr);
}

// Multi-line items are joined while reading, so there is nothing more to
// look for.
int Ini_ItemOrMultiLineItemExists(IniText theIniText, const char* sectionName, const char* itemName) {
  return Ini_ItemExists(theIniText, sectionName, itemName);
}

// ---------------------------------------------------------------- strings

int Ini_GetPointerToString(IniText dest, const char* sectionName, const char* itemName, char** destStr) {
  if (!destStr) return -1;
  *destStr = nullptr;
  char* raw = nullptr;
  int status = Ini_Get(dest, sectionName, itemName, &raw);
  if (status <= 0) return status;
  size_t len = strlen(raw);
  if (len >= 0xFFFFFFFFu || SetStringCacheSize(dest, (unsigned int)(len + 1)) < 0) return -1;
  UnescapeText(raw, dest->stringCache->data);
  *destStr = dest->stringCache->data;
  return status;
}

int Ini_GetStringCopy(IniText dest, const char* sectionName, const char* itemName, char** destStr) {
  if (!destStr) return -1;
  char* text = nullptr;
  int status = Ini_GetPointerToString(dest, sectionName, itemName, &text);
  *destStr = nullptr;
  if (status <= 0) return status;
  *destStr = StrDupl(text);
  return *destStr ? status : -1;
}

int Ini_GetRawStringCopy(IniText dest, const char* sectionName, const char* itemName, char** destStr) {
  if (!destStr) return -1;
  char* text = nullptr;
  int status = Ini_Get(dest, sectionName, itemName, &text);
  *destStr = nullptr;
  if (status <= 0) return status;
  *destStr = StrDupl(text);
  return *destStr ? status : -1;
}

// strncpy on purpose: a value of bufSize characters or more fills the buffer
// without a terminating NUL, so callers reserve room for one.
static int CopyIntoBuffer(int status, const char* text, char* buffer, int bufSize) {
  if (status > 0 && bufSize > 0) strncpy(buffer, text, (size_t)bufSize);
  return status;
}

int Ini_GetStringIntoBuffer(IniText theIniText, const char* sectionName, const char* itemName, char* buffer,
                            int bufSize) {
  if (!buffer) return -1;
  if (bufSize > 0) buffer[0] = 0;
  char* text = nullptr;
  int status = Ini_GetPointerToString(theIniText, sectionName, itemName, &text);
  return CopyIntoBuffer(status, text, buffer, bufSize);
}

int Ini_GetRawStringIntoBuffer(IniText theIniText, const char* sectionName, const char* itemName, char* buffer,
                               int bufSize) {
  if (!buffer) return -1;
  if (bufSize > 0) buffer[0] = 0;
  char* text = nullptr;
  int status = Ini_Get(theIniText, sectionName, itemName, &text);
  return CopyIntoBuffer(status, text, buffer, bufSize);
}

// ---------------------------------------------------------------- numbers and booleans

// The raw value for a numeric getter: <0 error, 0 absent or blank (output
// left as it was, which callers rely on), 1 with *text set.
static int RawForConversion(IniText doc, const char* sectionName, const char* itemName, const void* out,
                            char** text) {
  if (!out) return -1;
  int status = Ini_Get(doc, sectionName, itemName, text);
  if (status < 0) return status;
  if (status == 0 || !HasNonWhiteSpace(*text)) return 0;
  return 1;
}

int Ini_GetInt(IniText theIniText, const char* sectionName, const char* itemName, int* value) {
  char* text = nullptr;
  int status = RawForConversion(theIniText, sectionName, itemName, value, &text);
  if (status <= 0) return status;
  return StrToInt(text, value) ? 1 : -1;
}

int Ini_GetUInt(IniText theIniText, const char* sectionName, const char* itemName, unsigned int* value) {
  char* text = nullptr;
  int status = RawForConversion(theIniText, sectionName, itemName, value, &text);
  if (status <= 0) return status;
  return StrToUInt(text, value) ? 1 : -1;
}

int Ini_GetDouble(IniText src, const char* sectionName, const char* itemName, double* value) {
  char* text = nullptr;
  int status = RawForConversion(src, sectionName, itemName, value, &text);
  if (status <= 0) return status;
  if (strcasecmp(text, "+Inf") == 0 || strcasecmp(text, "Inf") == 0) {
    *value = HUGE_VAL;
    return 1;
  }
  if (strcasecmp(text, "-Inf") == 0) {
    *value = -HUGE_VAL;
    return 1;
  }
  char* end = nullptr;
  errno = 0;
  double d = strtod(text, &end);
  *value = d;  // stored even when the conversion then fails
  if (errno != 0 || !end || *end != 0) return -1;
  return 1;
}

int Ini_GetBoolean(IniText src, const char* sectionName, const char* itemName, int* boolValue) {
  char* text = nullptr;
  int status = RawForConversion(src, sectionName, itemName, boolValue, &text);
  if (status <= 0) return status;
  if (strcasecmp(text, "True") == 0) {
    *boolValue = 1;
    return 1;
  }
  if (strcasecmp(text, "False") == 0) {
    *boolValue = 0;
    return 1;
  }
  return -1;
}

// ---------------------------------------------------------------- binary data

int Ini_GetData(IniText iniText, const char* sectionName, const char* itemName, unsigned char** data,
                ViInt32* dataSize) {
  if (!data) return -1;
  *data = nullptr;
  if (dataSize) *dataSize = 0;
  char* text = nullptr;
  int status = Ini_Get(iniText, sectionName, itemName, &text);
  if (status <= 0) return status;
  int size = 0;
  if (!ConvertTextToData((const unsigned char*)text, &size, data)) {
    free(*data);
    *data = nullptr;
    return -1;
  }
  if (dataSize) *dataSize = size;
  return status;
}
