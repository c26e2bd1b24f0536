// Arbitrary bytes as an INI file (through the line reader over a memory
// stream) and as a line source, then every getter on every section and item
// found, and the binary-data decoding of every value.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ini_internal.h"

namespace {

struct ByteLines { const uint8_t* data; size_t size, pos; int line; };

// Splits at LF; a line longer than the limit continues as the next line.
int ByteLineSource(void* src, char* buf, int max, int* end, int* lineNum) {
  ByteLines* b = (ByteLines*)src;
  if (b->pos >= b->size) {
    *end = 1;
    return 0;
  }
  int n = 0;
  while (b->pos < b->size && n < max) {
    uint8_t c = b->data[b->pos++];
    if (c == '\n') break;
    buf[n++] = c ? (char)c : ' ';
  }
  buf[n] = 0;
  *lineNum = ++b->line;
  return 0;
}

void ExerciseDocument(IniText doc) {
  int sections = Ini_NumberOfSections(doc);
  for (int s = 1; s <= sections; ++s) {
    char* sec = nullptr;
    if (Ini_NthSectionName(doc, s, &sec) != 1) continue;
    int items = Ini_NumberOfItems(doc, sec);
    for (int i = 1; i <= items; ++i) {
      char* name = nullptr;
      if (Ini_NthItemName(doc, sec, i, &name) != 1) continue;
      int iv, bv;
      unsigned uv;
      double dv;
      char *p, buf[64];
      Ini_GetInt(doc, sec, name, &iv);
      Ini_GetUInt(doc, sec, name, &uv);
      Ini_GetDouble(doc, sec, name, &dv);
      Ini_GetBoolean(doc, sec, name, &bv);
      Ini_GetPointerToString(doc, sec, name, &p);
      Ini_GetPointerToRawString(doc, sec, name, &p);
      if (Ini_GetStringCopy(doc, sec, name, &p) == 1) free(p);
      if (Ini_GetRawStringCopy(doc, sec, name, &p) == 1) free(p);
      Ini_GetStringIntoBuffer(doc, sec, name, buf, sizeof buf);
      Ini_GetRawStringIntoBuffer(doc, sec, name, buf, sizeof buf);
      Ini_ItemOrMultiLineItemExists(doc, sec, name);
      Ini_LineOfLastAccess(doc);
      unsigned char* data = nullptr;
      ViInt32 size = 0;
      if (Ini_GetData(doc, sec, name, &data, &size) == 1) free(data);
      char* raw = nullptr;
      if (Ini_Get(doc, sec, name, &raw) == 1) {
        int n = 0;
        unsigned char* d = nullptr;
        if (ConvertTextToData((const unsigned char*)raw, &n, &d) && n > 0) {
          unsigned char* t = nullptr;
          if (ConvertDataToText(d, n, &t)) free(t);
          free(d);
        }
      }
    }
  }
  if (sections > 0) {
    char* first = nullptr;
    Ini_NthSectionName(doc, 1, &first);
    Ini_SortInternally(doc);
    Ini_Sort(doc);
    if (first) {
      char* copy = StrDupl(first);
      Ini_RemoveSection(doc, copy);
      free(copy);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // As a file: the line reader over a memory stream.
  FILE* f = fmemopen((void*)data, size, "rb");
  if (f) {
    LineFile lf = LineFile_New(nullptr, f);
    IniText doc = Ini_New(size & 1);
    if (lf && doc) {
      Ini_ReadGeneric(doc, Ini_LineFileInputFunction, lf);
      ExerciseDocument(doc);
    }
    Ini_Dispose(doc);
    LineFile_Dispose(lf);
    fclose(f);
  }
  // As a line source, with other tokens when the first byte asks for them.
  IniText doc = Ini_New(0);
  if (doc) {
    if (size > 0 && (data[0] & 3) == 3) Ini_SetTokens(doc, '<', '>', ":=", "#");
    ByteLines src = {data, size, 0, 0};
    Ini_ReadGeneric(doc, ByteLineSource, &src);
    ExerciseDocument(doc);
    Ini_Dispose(doc);
  }
  return 0;
}
