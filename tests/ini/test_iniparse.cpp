// Reading INI documents: line classes, quoting, tokens, filters, duplicates,
// multi-line items, sorting, line ends and real files.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "ini_internal.h"

namespace {

struct TextSource {
  std::vector<std::string> lines;
  size_t next = 0;
};

// A line source over prepared lines; line numbers from 1.
int LinesSource(void* src, char* buf, int max, int* end, int* lineNum) {
  TextSource* t = (TextSource*)src;
  if (t->next >= t->lines.size()) {
    *end = 1;
    return 0;
  }
  snprintf(buf, (size_t)max + 1, "%s", t->lines[t->next].c_str());
  *lineNum = (int)++t->next;
  return 0;
}

IniText Read(std::vector<std::string> lines, int sorted = 0) {
  IniText doc = Ini_New(sorted);
  TextSource src{std::move(lines)};
  EXPECT_GE(Ini_ReadGeneric(doc, LinesSource, &src), 0);
  return doc;
}

std::string Raw(IniText doc, const char* sec, const char* item) {
  char* v = nullptr;
  return Ini_Get(doc, sec, item, &v) == 1 ? std::string(v) : std::string("<none>");
}

// A LineFile over an in-memory byte string.
struct MemBytes {
  std::string data;
  size_t pos = 0;
  size_t chunk = 2048;
};
int MemRead(void* src, int n, int* got, void* dest) {
  MemBytes* m = (MemBytes*)src;
  size_t k = std::min({(size_t)n, m->data.size() - m->pos, m->chunk});
  memcpy(dest, m->data.data() + m->pos, k);
  m->pos += k;
  *got = (int)k;
  return 0;
}

std::vector<std::string> AllLines(const std::string& bytes, size_t chunk = 2048, int max = 255) {
  MemBytes m{bytes, 0, chunk};
  LineFile lf = LineFile_New(MemRead, &m);
  std::vector<std::string> out;
  std::vector<char> buf(max + 1);
  for (;;) {
    int len = -1, eof = 0;
    EXPECT_EQ(LineFile_Read(lf, buf.data(), max, &len, &eof), 0);
    if (eof) break;
    EXPECT_EQ((size_t)len, strlen(buf.data()));
    out.push_back(buf.data());
  }
  LineFile_Dispose(lf);
  return out;
}

TEST(Parser, LineClasses) {
  IniText doc = Ini_New(0);
  char sec[256], name[256], value[256];
  EXPECT_EQ(ParseTagTextLine(doc, "  ;comment = x", sec, name, value), kIni_CommentLine);
  EXPECT_EQ(ParseTagTextLine(doc, "=x", sec, name, value), kIni_NotAnIniLine);
  EXPECT_EQ(ParseTagTextLine(doc, "   = x", sec, name, value), kIni_NotAnIniLine);
  EXPECT_EQ(ParseTagTextLine(doc, "no separator", sec, name, value), kIni_NotAnIniLine);
  EXPECT_EQ(ParseTagTextLine(doc, "a =", sec, name, value), kIni_TagAndValueLine);
  EXPECT_STREQ(name, "a");
  EXPECT_STREQ(value, "");
  EXPECT_EQ(ParseTagTextLine(doc, " a b = b=c  ", sec, name, value), kIni_TagAndValueLine);
  EXPECT_STREQ(name, "a b");
  EXPECT_STREQ(value, "b=c");
  EXPECT_EQ(ParseTagTextLine(doc, "[ A ] ", sec, name, value), kIni_SectionLine);
  EXPECT_STREQ(sec, "A");
  EXPECT_EQ(ParseTagTextLine(doc, "[a]b]", sec, name, value), kIni_SectionLine);
  EXPECT_STREQ(sec, "a]b");
  EXPECT_EQ(ParseTagTextLine(doc, "[a] x", sec, name, value), kIni_NotAnIniLine);
  EXPECT_EQ(ParseTagTextLine(doc, "[  ]", sec, name, value), kIni_NotAnIniLine);
  EXPECT_EQ(ParseTagTextLine(doc, "[open", sec, name, value), kIni_NotAnIniLine);
  EXPECT_EQ(ParseTagTextLine(nullptr, "a=b", sec, name, value), -1);
  Ini_Dispose(doc);
}

TEST(Parser, QuotesItemsBeforeSectionsAndDuplicates) {
  IniText doc = Read({"early = dropped", "[S]", "key = \"quoted value\"", "one = \"", "two = \"\"", "x=1",
                      "X = 2", "[s]", "x = 3"});
  EXPECT_EQ(Ini_NumberOfSections(doc), 2);  // duplicates are kept
  EXPECT_EQ(Raw(doc, "S", "key"), "quoted value");
  EXPECT_EQ(Raw(doc, "S", "one"), "\"");
  EXPECT_EQ(Raw(doc, "S", "two"), "");
  EXPECT_EQ(Raw(doc, "S", "x"), "1");  // linear search finds the first
  EXPECT_EQ(Ini_NumberOfItems(doc, "S"), 5);
  IniSection s = Ini_FindSection(doc, "S");
  IniEntry e = Ini_FindEntry(s, "key");
  EXPECT_EQ(e->addMarkerQuotes, 1);
  EXPECT_EQ(Ini_FindEntry(s, "one")->addMarkerQuotes, 0);
  EXPECT_EQ(e->sourceLine, 3);
  EXPECT_EQ(s->sourceLine, 2);
  EXPECT_EQ(Raw(doc, "", "early"), "<none>");
  Ini_Dispose(doc);
}

TEST(Parser, CustomTokens) {
  IniText doc = Ini_New(0);
  ASSERT_EQ(Ini_SetTokens(doc, '<', '>', ":=", "#"), 0);
  EXPECT_STREQ(doc->nameValueOutputSeparatorToken, " := ");
  EXPECT_EQ(doc->nameValueInputSeparatorLength, 2);
  TextSource src{{"<Sec>", "a := b", "c = d", "# x := y", "; e := f"}};
  ASSERT_GE(Ini_ReadGeneric(doc, LinesSource, &src), 0);
  EXPECT_EQ(Raw(doc, "Sec", "a"), "b");
  EXPECT_EQ(Raw(doc, "Sec", "c"), "<none>");
  EXPECT_EQ(Raw(doc, "Sec", "; e"), "f");
  EXPECT_EQ(Ini_NumberOfItems(doc, "Sec"), 2);
  ASSERT_EQ(Ini_SetTokens(doc, 0, 0, "0123456789", nullptr), 0);  // long token is cut
  EXPECT_STREQ(doc->nameValueInputSeparatorToken, "0123456");
  EXPECT_EQ(doc->sectionNameStartChar, '<');
  EXPECT_EQ(Ini_SetTokens(nullptr, 0, 0, nullptr, nullptr), -1);
  Ini_Dispose(doc);
}

int KeepOnlyB(IniText, void* data, const char* name) {
  ++*(int*)data;
  return strcmp(name, "B") == 0;
}

TEST(Parser, SectionFilterDropsItems) {
  IniText doc = Ini_New(0);
  int calls = 0;
  ASSERT_EQ(Ini_SetSectionFilter(doc, KeepOnlyB, &calls), 0);
  TextSource src{{"[A]", "a=1", "[B]", "b=2", "[C]", "c=3"}};
  ASSERT_GE(Ini_ReadGeneric(doc, LinesSource, &src), 0);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(Ini_NumberOfSections(doc), 1);
  EXPECT_EQ(Raw(doc, "B", "b"), "2");
  EXPECT_EQ(Raw(doc, "B", "c"), "<none>");
  Ini_Dispose(doc);
}

TEST(Parser, MultiLineItems) {
  IniText doc = Read({"[S]", "Text Line1 = ab", "Text Line2 = cd", "plain = p", "Other Line2 = zz",
                      "A Line1 = 1", "B Line7 = 2", "C Line1 = 3", "Lone Line1 = solo", "x Line2y = keep"});
  EXPECT_EQ(Raw(doc, "S", "Text"), "abcd");
  EXPECT_EQ(Raw(doc, "S", "Other Line2"), "zz");  // no line 1 before it: stays as it is
  EXPECT_EQ(Raw(doc, "S", "A"), "12");            // loose grouping: B Line7 joins A
  EXPECT_EQ(Raw(doc, "S", "C"), "3");
  EXPECT_EQ(Raw(doc, "S", "Lone"), "solo");
  EXPECT_EQ(Raw(doc, "S", "x Line2y"), "keep");
  char* name = nullptr;
  ASSERT_EQ(Ini_NthItemName(doc, "S", 1, &name), 1);
  EXPECT_STREQ(name, "Text ");  // the blank before "Line" stays, look-ups ignore it
  EXPECT_EQ(Ini_ItemOrMultiLineItemExists(doc, "S", "Text Line2"), 0);
  Ini_Dispose(doc);
}

TEST(Parser, MultiLineGroupsJoinAnyFollowingContinuation) {
  IniText doc = Read({"[S]", "Text Line1 = ab", "Text Line2 = cd", "Other Line2 = zz"});
  // Other Line2 directly follows the group and, deliberately, joins it.
  EXPECT_EQ(Raw(doc, "S", "Text"), "abcdzz");
  EXPECT_EQ(Ini_NumberOfItems(doc, "S"), 1);
  Ini_Dispose(doc);
  doc = Read({"[S]", "Text Line2 = cd", "Text Line3 = ef"});
  EXPECT_EQ(Raw(doc, "S", "Text Line2"), "cd");
  Ini_Dispose(doc);
  int n = 0;
  EXPECT_EQ(Ini_AnalyzeItemName("a Line99999999999999999999", &n), 0);
  EXPECT_EQ(Ini_AnalyzeItemName("a Line12", &n), 1);
  EXPECT_EQ(n, 12);
  EXPECT_EQ(Ini_AnalyzeItemName("a line1", &n), 0);
  EXPECT_EQ(Ini_AnalyzeItemName("a Line", &n), 0);
}

TEST(Parser, SortingAndInternalSorting) {
  IniText doc = Read({"[zeta]", "b=1", "A=2", "[Alpha]", "MANF_ID=5", "MANFNAME=6", "MAINFRAME_LA=7"}, 1);
  char* name = nullptr;
  ASSERT_EQ(Ini_NthSectionName(doc, 1, &name), 1);
  EXPECT_STREQ(name, "Alpha");
  ASSERT_EQ(Ini_NthItemName(doc, "zeta", 1, &name), 1);
  EXPECT_STREQ(name, "A");
  EXPECT_EQ(Ini_NthSectionName(doc, 3, &name), 0);
  EXPECT_EQ(Ini_NthSectionName(doc, 0, &name), 0);
  EXPECT_EQ(Ini_NthSectionName(doc, 1, nullptr), -1);
  // names with characters between 'Z' and 'a' are still found by binary search
  EXPECT_EQ(Raw(doc, " alpha ", "manf_id"), "5");
  EXPECT_EQ(Raw(doc, "ALPHA", "MANFNAME"), "6");
  EXPECT_EQ(Raw(doc, "Alpha", "MAINFRAME_LA"), "7");
  Ini_Dispose(doc);

  doc = Read({"[c]", "k=3", "[a]", "k=1", "[b]", "k=2", "j=0"});
  ASSERT_EQ(Ini_SortInternally(doc), 0);
  ASSERT_EQ(Ini_NthSectionName(doc, 1, &name), 1);
  EXPECT_STREQ(name, "c");  // file order kept
  EXPECT_EQ(Raw(doc, "b", "j"), "0");
  EXPECT_EQ(Raw(doc, "a", "k"), "1");
  TextSource more{{"[0]", "z=9"}};
  ASSERT_EQ(Ini_ReadGeneric(doc, LinesSource, &more), 0);  // copies rebuilt after reading
  EXPECT_EQ(Raw(doc, "0", "z"), "9");
  EXPECT_EQ(ListNumItems(doc->internallySortedList), 4);
  EXPECT_EQ(Ini_RemoveSection(doc, "b"), 1);
  EXPECT_EQ(Ini_RemoveSection(doc, "b"), 0);
  EXPECT_EQ(Ini_SectionExists(doc, "b"), 0);
  EXPECT_EQ(ListNumItems(doc->internallySortedList), 3);
  Ini_DisableInternalSorting(doc);
  EXPECT_EQ(Raw(doc, "c", "k"), "3");
  Ini_Sort(doc);
  ASSERT_EQ(Ini_NthSectionName(doc, 1, &name), 1);
  EXPECT_STREQ(name, "0");
  Ini_DisableSorting(doc);
  EXPECT_EQ(doc->sorted, 0);
  EXPECT_EQ(Raw(doc, "a", "k"), "1");
  Ini_Dispose(doc);
}

int FailingSource(void*, char*, int, int*, int*) { return -7; }

TEST(Parser, SourceErrorEndsRead) {
  IniText doc = Ini_New(0);
  EXPECT_EQ(Ini_ReadGeneric(doc, FailingSource, nullptr), -7);
  Ini_Dispose(doc);
}

// A source that ignores the length limit and fills the whole buffer without
// a terminator: the reader still keeps to its buffer.
int OverfillingSource(void* state, char* buf, int max, int* end, int*) {
  int* n = (int*)state;
  if ((*n)++ == 2) {
    *end = 1;
    return 0;
  }
  memset(buf, 'k', (size_t)max + 1);
  if (*n == 1) buf[0] = '[';
  return 0;
}

TEST(Parser, OverlongLinesAreBounded) {
  int state = 0;
  IniText doc = Ini_New(0);
  EXPECT_GE(Ini_ReadGeneric(doc, OverfillingSource, &state), 0);
  Ini_Dispose(doc);
  auto lines = AllLines(std::string(300, 'x') + "\nnext\n");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], std::string(255, 'x'));
  EXPECT_EQ(lines[1], "next");
}

TEST(LineReader, LineEndKinds) {
  for (const char* end : {"\r\n", "\n", "\r", "\n\r"}) {
    std::string text = std::string("a") + end + "b" + end + "c";
    for (size_t chunk : {1u, 2u, 2048u}) EXPECT_EQ(AllLines(text, chunk), (std::vector<std::string>{"a", "b", "c"}));
  }
  EXPECT_EQ(AllLines("a\r\rb"), (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(AllLines("a\r\n\r\nb"), (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(AllLines(std::string("a\0b", 3)), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(AllLines(""), std::vector<std::string>{});
  EXPECT_EQ(AllLines("\nx"), std::vector<std::string>{"x"});  // a leading line end is swallowed
}

TEST(LineReader, CountersAndNonEmptyReads) {
  MemBytes m{"\nfirst\r\n\r\n  \r\nsecond"};
  LineFile lf = LineFile_New(MemRead, &m);
  char buf[256];
  int len, eof;
  ASSERT_EQ(LineFile_ReadNonEmpty(lf, buf, 255, &len, &eof), 0);
  EXPECT_STREQ(buf, "first");
  EXPECT_EQ(LineFile_NumLinesRead(lf), 1);  // the swallowed leading end is not a line
  EXPECT_EQ(LineFile_OffsetOfLastLine(lf), 1);
  ASSERT_EQ(LineFile_ReadNonEmpty(lf, buf, 255, &len, &eof), 0);
  EXPECT_STREQ(buf, "second");
  EXPECT_EQ(LineFile_NumCharsInEmptyLines(lf), (0 + 1 + 1) + (2 + 1 + 1));
  EXPECT_EQ(LineFile_OffsetOfLastLine(lf), 14);
  EXPECT_EQ(LineFile_NumLinesRead(lf), 4);
  ASSERT_EQ(LineFile_ReadNonEmpty(lf, buf, 255, &len, &eof), 0);
  EXPECT_EQ(eof, 1);
  EXPECT_EQ(LineFile_Read(lf, buf, 255, &len, nullptr), -1);
  LineFile_Dispose(lf);
  EXPECT_EQ(LineFile_NumLinesRead(nullptr), 0);
}

TEST(Files, RealFileAndMissingFile) {
  char dir[] = "/tmp/initestXXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string path = std::string(dir) + "/conf.ini";
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  fputs("; resource file\r\n[COMMON]\r\nNumIntf = 2\r\n\r\n[INTF0]\r\nADDR = \"127.0.0.2\"\r\n", f);
  fclose(f);
  IniText doc = Ini_New(1);
  EXPECT_EQ(Ini_ReadFromFile(doc, path.c_str()), 0);
  int n = 0;
  EXPECT_EQ(Ini_GetInt(doc, "COMMON", "NumIntf", &n), 1);
  EXPECT_EQ(n, 2);
  EXPECT_EQ(Ini_LineOfLastAccess(doc), 3);
  EXPECT_EQ(Raw(doc, "INTF0", "ADDR"), "127.0.0.2");
  EXPECT_EQ(Ini_LineOfLastAccess(doc), 6);
  Ini_Dispose(doc);

  doc = Ini_New(0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Ini_ReadFromFile(doc, (std::string(dir) + "/missing.ini").c_str()), -1);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("Can't open file: ", 0), 0u) << err;
  EXPECT_EQ(Ini_ReadFromFile(nullptr, path.c_str()), -1);
  Ini_Dispose(doc);
  unlink(path.c_str());
  rmdir(dir);
}

}  // namespace
