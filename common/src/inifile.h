// The INI reader: documents of sections and items read from a file or any
// line source, with typed access to the values.  Results follow one rule:
// 1 found, 0 not found, -1 error (null document, bad argument, allocation
// failure, a value that does not convert).
#ifndef KV_INIFILE_H
#define KV_INIFILE_H

#include "kvexport.h"
#include "kvvisatypes.h"
#include "itemlist.h"
#include "toolbox.h"

typedef struct IniStructForwardReferenceTag* IniText;
typedef struct IniSectionStructTag* IniSection;
typedef struct _iniEntryStruct* IniEntry;
typedef struct LineFileForwardReferenceTag* LineFile;

// Line classes of the parser.
enum {
  kIni_CommentLine = 0,
  kIni_SectionLine = 1,
  kIni_TagAndValueLine = 2,
  kIni_NotAnIniLine = 3
};

// A line source: writes the next line (NUL-terminated) into inputBuffer,
// sets *endOfSource to 1 when there is none, may store the line number
// through lineNumRead; negative on error.
typedef int (*Ini_LineSourceFunc)(void* inputSource, char* inputBuffer, int maxLineLength, int* endOfSource,
                                  int* lineNumRead);
// Section filter: non-zero keeps the section.
typedef int (*Ini_SectionFilterFunc)(IniText theIniText, void* callbackData, const char* sectionName);
// Byte source of a LineFile: negative on error.
typedef int (*LineFileReadFunc)(void* inputSource, int numBytesToRead, int* numBytesRead, void* dest);

// ---------------------------------------------------------------- documents
KV_EXPORT IniText Ini_New(int sorted);
KV_EXPORT void Ini_Dispose(IniText theIniText);
KV_EXPORT int Ini_ReadFromFile(IniText theIniText, const char* pathName);
KV_EXPORT int Ini_ReadGeneric(IniText theIniText, Ini_LineSourceFunc inputFunction, void* inputSource);
KV_EXPORT int Ini_SetTokens(IniText theIniText, char sectionNameStartCharacter, char sectionNameEndCharacter,
                            const char* valueSeparator, const char* commentMarker);
KV_EXPORT int Ini_SetSectionFilter(IniText theIniText, Ini_SectionFilterFunc sectionFilter, void* callbackData);
KV_EXPORT int Ini_SetDuplicateChecking(IniText theIniText, int checkForDuplicates);
KV_EXPORT void Ini_Sort(IniText theIniText);
KV_EXPORT void Ini_DisableSorting(IniText theIniText);
KV_EXPORT int Ini_SortInternally(IniText theIniText);
KV_EXPORT void Ini_DisableInternalSorting(IniText theIniText);
KV_EXPORT int Ini_NumberOfSections(IniText theIniText);
KV_EXPORT int Ini_NthSectionName(IniText theIniText, int sectionIndex, char** sectionName);
KV_EXPORT int Ini_NumberOfItems(IniText theIniText, const char* sectionName);
KV_EXPORT int Ini_NthItemName(IniText theIniText, const char* sectionName, int itemIndex, char** itemName);
KV_EXPORT int Ini_SectionExists(IniText theIniText, const char* sectionName);
KV_EXPORT int Ini_RemoveSection(IniText theIniText, const char* sectionName);
KV_EXPORT int Ini_LineOfLastAccess(IniText theIniText);

// ---------------------------------------------------------------- line reader
KV_EXPORT LineFile LineFile_New(LineFileReadFunc inputFunc, void* inputSource);
KV_EXPORT void LineFile_Dispose(LineFile lineFile);
KV_EXPORT int LineFile_Read(LineFile lineFile, char* destBuf, int maxNumBytes, int* bytesRead, int* endOfFile);
KV_EXPORT int LineFile_ReadNonEmpty(LineFile lineFile, char* destBuf, int maxNumBytes, int* bytesRead,
                                    int* endOfFile);
KV_EXPORT int LineFile_NumLinesRead(LineFile lineFile);
KV_EXPORT int LineFile_OffsetOfLastLine(LineFile lineFile);
KV_EXPORT int LineFile_NumExtraLineTermChars(LineFile lineFile);
KV_EXPORT int LineFile_NumCharsInEmptyLines(LineFile lineFile);
KV_EXPORT int LineFile_ReadFromFile(void* inputSource, int numBytesToRead, int* numBytesRead, void* dest);

// ---------------------------------------------------------------- values
KV_EXPORT int Ini_Get(IniText theIniText, const char* sectionName, const char* itemName, char** value);
KV_EXPORT int Ini_GetPointerToRawString(IniText dest, const char* sectionName, const char* itemName, char** destStr);
KV_EXPORT int Ini_GetPointerToString(IniText dest, const char* sectionName, const char* itemName, char** destStr);
KV_EXPORT int Ini_GetStringCopy(IniText dest, const char* sectionName, const char* itemName, char** destStr);
KV_EXPORT int Ini_GetRawStringCopy(IniText dest, const char* sectionName, const char* itemName, char** destStr);
KV_EXPORT int Ini_GetStringIntoBuffer(IniText theIniText, const char* sectionName, const char* itemName, char* buffer,
                                      int bufSize);
KV_EXPORT int Ini_GetRawStringIntoBuffer(IniText theIniText, const char* sectionName, const char* itemName,
                                         char* buffer, int bufSize);
KV_EXPORT int Ini_GetInt(IniText theIniText, const char* sectionName, const char* itemName, int* value);
KV_EXPORT int Ini_GetUInt(IniText theIniText, const char* sectionName, const char* itemName, unsigned int* value);
KV_EXPORT int Ini_GetDouble(IniText src, const char* sectionName, const char* itemName, double* value);
KV_EXPORT int Ini_GetBoolean(IniText src, const char* sectionName, const char* itemName, int* boolValue);
KV_EXPORT int Ini_GetData(IniText iniText, const char* sectionName, const char* itemName, unsigned char** data,
                          ViInt32* dataSize);
KV_EXPORT int Ini_ItemExists(IniText theIniText, const char* sectionName, const char* itemName);
KV_EXPORT int Ini_ItemOrMultiLineItemExists(IniText theIniText, const char* sectionName, const char* itemName);

#endif
