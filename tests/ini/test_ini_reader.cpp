// Reading INI documents (line classes, quoting, tokens, filters, duplicates,
// multi-line items, sorting, line ends, real files) and typed value access
// (conversions, the untouched-output rule, escapes, the string cache, buffer
// copies, binary data).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ini_internal.h"

namespace {

// A line source over prepared lines; line numbers from 1.
struct Lines {
  std::vector<std::string> v;
  size_t next = 0;
};
int Source(void* src, char* buf, int max, int* end, int* lineNum) {
  Lines* l = (Lines*)src;
  if (l->next >= l->v.size()) {
    *end = 1;
    return 0;
  }
  snprintf(buf, (size_t)max + 1, "%s", l->v[l->next++].c_str());
  *lineNum = (int)l->next;
  return 0;
}

IniText Read(std::vector<std::string> lines, int sorted = 0) {
  IniText doc = Ini_New(sorted);
  Lines src{std::move(lines)};
  EXPECT_GE(Ini_ReadGeneric(doc, Source, &src), 0);
  return doc;
}

std::string Raw(IniText doc, const char* sec, const char* item) {
  char* v = nullptr;
  return Ini_Get(doc, sec, item, &v) == 1 ? std::string(v) : std::string("<none>");
}

// The n-th section's name in the document's order, or "<none>".
std::string Section(IniText doc, int n) {
  char* name = nullptr;
  return Ini_NthSectionName(doc, n, &name) == 1 ? std::string(name) : std::string("<none>");
}

// A LineFile over an in-memory byte string, delivered in chunks.
struct MemBytes {
  std::string data;
  size_t pos = 0, chunk = 2048;
};
int MemRead(void* src, int n, int* got, void* dest) {
  MemBytes* m = (MemBytes*)src;
  size_t k = std::min({(size_t)n, m->data.size() - m->pos, m->chunk});
  memcpy(dest, m->data.data() + m->pos, k);
  m->pos += k;
  *got = (int)k;
  return 0;
}

std::vector<std::string> AllLines(const std::string& bytes, size_t chunk = 2048) {
  MemBytes m{bytes, 0, chunk};
  LineFile lf = LineFile_New(MemRead, &m);
  std::vector<std::string> out;
  char buf[256];
  for (int len = -1, eof = 0;;) {
    EXPECT_EQ(LineFile_Read(lf, buf, 255, &len, &eof), 0);
    if (eof) break;
    EXPECT_EQ((size_t)len, strlen(buf));
    out.push_back(buf);
  }
  LineFile_Dispose(lf);
  return out;
}

// ------------------------------------------------------------------ parsing

TEST(Parser, LineClasses) {
  struct Case { const char* line; int kind; const char* a; const char* b; };  // a, b: section or name, value
  const Case cases[] = {{"  ;comment = x", kIni_CommentLine, nullptr, nullptr},
                        {"=x", kIni_NotAnIniLine, nullptr, nullptr},
                        {"   = x", kIni_NotAnIniLine, nullptr, nullptr},
                        {"no separator", kIni_NotAnIniLine, nullptr, nullptr},
                        {"a =", kIni_TagAndValueLine, "a", ""},
                        {" a b = b=c  ", kIni_TagAndValueLine, "a b", "b=c"},
                        {"[ A ] ", kIni_SectionLine, "A", nullptr},
                        {"[a]b]", kIni_SectionLine, "a]b", nullptr},
                        {"[a] x", kIni_NotAnIniLine, nullptr, nullptr},
                        {"[  ]", kIni_NotAnIniLine, nullptr, nullptr},
                        {"[open", kIni_NotAnIniLine, nullptr, nullptr}};
  IniText doc = Ini_New(0);
  char sec[256], name[256], value[256];
  for (const Case& c : cases) {
    EXPECT_EQ(ParseTagTextLine(doc, c.line, sec, name, value), c.kind) << c.line;
    std::string got = c.kind == kIni_SectionLine ? sec : std::string(name) + "|" + value;
    if (c.a) {
      EXPECT_EQ(got, c.b ? std::string(c.a) + "|" + c.b : c.a) << c.line;
    }
  }
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

int KeepOnlyB(IniText, void* data, const char* name) {
  ++*(int*)data;
  return strcmp(name, "B") == 0;
}

TEST(Parser, CustomTokensAndSectionFilter) {
  IniText doc = Ini_New(0);
  ASSERT_EQ(Ini_SetTokens(doc, '<', '>', ":=", "#"), 0);
  EXPECT_STREQ(doc->nameValueOutputSeparatorToken, " := ");
  Lines src{{"<Sec>", "a := b", "c = d", "# x := y", "; e := f"}};
  ASSERT_GE(Ini_ReadGeneric(doc, Source, &src), 0);
  EXPECT_EQ(Raw(doc, "Sec", "a"), "b");
  EXPECT_EQ(Raw(doc, "Sec", "c"), "<none>");
  EXPECT_EQ(Raw(doc, "Sec", "; e"), "f");
  EXPECT_EQ(Ini_NumberOfItems(doc, "Sec"), 2);
  ASSERT_EQ(Ini_SetTokens(doc, 0, 0, "0123456789", nullptr), 0);  // long token is cut
  EXPECT_STREQ(doc->nameValueInputSeparatorToken, "0123456");
  EXPECT_EQ(doc->sectionNameStartChar, '<');
  EXPECT_EQ(Ini_SetTokens(nullptr, 0, 0, nullptr, nullptr), -1);
  Ini_Dispose(doc);

  doc = Ini_New(0);
  int calls = 0;
  ASSERT_EQ(Ini_SetSectionFilter(doc, KeepOnlyB, &calls), 0);
  Lines filtered{{"[A]", "a=1", "[B]", "b=2", "[C]", "c=3"}};
  ASSERT_GE(Ini_ReadGeneric(doc, Source, &filtered), 0);
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
  // A continuation directly after a group joins it, whatever its name
  // (deliberately); a group needs its line 1.
  doc = Read({"[S]", "Text Line1 = ab", "Text Line2 = cd", "Other Line2 = zz", "[T]", "U Line2 = cd", "U Line3 = ef"});
  EXPECT_EQ(Raw(doc, "S", "Text"), "abcdzz");
  EXPECT_EQ(Ini_NumberOfItems(doc, "S"), 1);
  EXPECT_EQ(Raw(doc, "T", "U Line2"), "cd");
  Ini_Dispose(doc);
  int n = 0;
  EXPECT_EQ(Ini_AnalyzeItemName("a Line99999999999999999999", &n), 0);
  EXPECT_EQ(Ini_AnalyzeItemName("a line1", &n), 0);
  EXPECT_EQ(Ini_AnalyzeItemName("a Line", &n), 0);
  EXPECT_EQ(Ini_AnalyzeItemName("a Line12", &n), 1);
  EXPECT_EQ(n, 12);
}

TEST(Parser, SortingAndInternalSorting) {
  IniText doc = Read({"[zeta]", "b=1", "A=2", "[Alpha]", "MANF_ID=5", "MANFNAME=6", "MAINFRAME_LA=7"}, 1);
  EXPECT_EQ(Section(doc, 1) + Section(doc, 2) + Section(doc, 3) + Section(doc, 0), "Alphazeta<none><none>");
  char* name = nullptr;
  ASSERT_EQ(Ini_NthItemName(doc, "zeta", 1, &name), 1);
  EXPECT_STREQ(name, "A");
  EXPECT_EQ(Ini_NthSectionName(doc, 1, nullptr), -1);
  // names with characters between 'Z' and 'a' are still found by binary search
  EXPECT_EQ(Raw(doc, " alpha ", "manf_id") + Raw(doc, "ALPHA", "MANFNAME") + Raw(doc, "Alpha", "MAINFRAME_LA"), "567");
  Ini_Dispose(doc);

  doc = Read({"[c]", "k=3", "[a]", "k=1", "[b]", "k=2", "j=0"});
  ASSERT_EQ(Ini_SortInternally(doc), 0);
  EXPECT_EQ(Section(doc, 1), "c");  // file order kept
  EXPECT_EQ(Raw(doc, "b", "j") + Raw(doc, "a", "k"), "01");
  Lines more{{"[0]", "z=9"}};
  ASSERT_EQ(Ini_ReadGeneric(doc, Source, &more), 0);  // copies rebuilt after reading
  EXPECT_EQ(Raw(doc, "0", "z"), "9");
  EXPECT_EQ(ListNumItems(doc->internallySortedList), 4);
  EXPECT_EQ(Ini_RemoveSection(doc, "b"), 1);
  EXPECT_EQ(Ini_RemoveSection(doc, "b") + Ini_SectionExists(doc, "b"), 0);
  EXPECT_EQ(ListNumItems(doc->internallySortedList), 3);
  Ini_DisableInternalSorting(doc);
  EXPECT_EQ(Raw(doc, "c", "k"), "3");
  Ini_Sort(doc);
  EXPECT_EQ(Section(doc, 1), "0");
  Ini_DisableSorting(doc);
  EXPECT_EQ(Raw(doc, "a", "k"), "1");
  Ini_Dispose(doc);
}

// Sorted look-ups against a plain linear scan of the same names: every name
// (case, surrounding blanks, a coalesced name that keeps its blank, a name
// longer than a line's parse buffer given as the key) finds exactly what
// the unsorted document finds.
TEST(Parser, SortedLookupsFindWhatALinearScanFinds) {
  std::string longKey(300, 'q');
  std::vector<std::string> lines = {"[ Zeta ]", "B=1", "a b=2", "Text Line1=x", "Text Line2=y", "_=3", "[ALPHA]",
                                    "k=4", "[alpha2]", "K=5"};
  IniText sorted = Read(lines, 1), plain = Read(lines, 0);
  const char* keys[][2] = {{"zeta", "b"},     {" ZETA ", " B "}, {"Zeta", "A B"},   {"zeta", "a  b"},
                           {"zeta", "text"},  {"zeta", "TEXT "}, {"zeta", "_"},     {"alpha", "K"},
                           {"Alpha2", "k "},  {"alpha", "k2"},   {"alph", "k"},     {"zeta", longKey.c_str()},
                           {longKey.c_str(), "k"}};
  for (auto& k : keys) EXPECT_EQ(Raw(plain, k[0], k[1]), Raw(sorted, k[0], k[1])) << k[0] << "/" << k[1];
  EXPECT_EQ(Raw(sorted, " zeta", "TEXT"), "xy");
  Ini_Dispose(sorted);
  Ini_Dispose(plain);
}

// A source that ignores the length limit and fills the whole buffer without
// a terminator on its first two calls: the reader still keeps to its buffer.
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

TEST(Parser, SourceErrorsAndOverlongLines) {
  IniText doc = Ini_New(0);
  EXPECT_EQ(Ini_ReadGeneric(doc, [](void*, char*, int, int*, int*) { return -7; }, nullptr), -7);
  int state = 0;
  EXPECT_GE(Ini_ReadGeneric(doc, OverfillingSource, &state), 0);
  Ini_Dispose(doc);
  auto lines = AllLines(std::string(300, 'x') + "\nnext\n");
  EXPECT_EQ(lines, (std::vector<std::string>{std::string(255, 'x'), "next"}));
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

// ------------------------------------------------------------ typed values

class Values : public testing::Test {
 protected:
  void SetUp() override {
    doc = Read({"[V]", "blank =   ", "int = -42", "big = 2147483648", "neg = -1", "uint = 4294967295", "inf = INF",
                "minf = -inf", "pinf = +Inf", "sci = 1.5e3", "bad = 1.5x", "t = TRUE", "f = false", "yes = yes",
                "tab = a\\tb", "hex = \\x41\\x6a", "cut = ab\\x4", "cut2 = ab\\x", "tail = ab\\",
                "esc = \\n\\r\\\\\\\"\\q", "ten = 0123456789", "odd = \\xZ1", "data = bo00", "short = A",
                "quoted = \"  spaced  \""},
               1);
  }
  void TearDown() override { Ini_Dispose(doc); }
  std::string Unescaped(const char* item) {
    char* s = nullptr;
    EXPECT_EQ(Ini_GetPointerToString(doc, "V", item, &s), 1) << item;
    return s ? std::string(s) : std::string();
  }
  IniText doc = nullptr;
};

// "result:value": 1 found and converted, 0 absent or blank (output
// untouched), -1 present but not convertible.
TEST_F(Values, NumbersBooleansAndUntouchedOutputs) {
  auto get = [&](auto fn, auto start, const char* sec, const char* item) {
    auto v = start;
    int rc = fn(doc, sec, item, &v);
    std::ostringstream o;
    o << rc << ":" << v;
    return o.str();
  };
  EXPECT_EQ(get(Ini_GetInt, 77, "V", "blank"), "0:77");
  EXPECT_EQ(get(Ini_GetInt, 77, "V", "missing"), "0:77");
  EXPECT_EQ(get(Ini_GetInt, 77, "nosection", "int"), "0:77");
  EXPECT_EQ(get(Ini_GetInt, 77, "V", "big"), "-1:77");
  EXPECT_EQ(get(Ini_GetInt, 77, "V", "int"), "1:-42");
  EXPECT_EQ(get(Ini_GetUInt, 5u, "V", "neg"), "-1:5");
  EXPECT_EQ(get(Ini_GetUInt, 5u, "V", "blank"), "0:5");
  EXPECT_EQ(get(Ini_GetUInt, 5u, " v ", " UINT "), "1:4294967295");
  EXPECT_EQ(get(Ini_GetDouble, 0.0, "V", "inf"), "1:inf");
  EXPECT_EQ(get(Ini_GetDouble, 0.0, "V", "minf"), "1:-inf");
  EXPECT_EQ(get(Ini_GetDouble, 0.0, "V", "pinf"), "1:inf");
  EXPECT_EQ(get(Ini_GetDouble, 0.0, "V", "sci"), "1:1500");
  EXPECT_EQ(get(Ini_GetDouble, 0.0, "V", "bad"), "-1:1.5");  // stored despite the failure
  EXPECT_EQ(get(Ini_GetDouble, 3.0, "V", "blank"), "0:3");
  EXPECT_EQ(get(Ini_GetBoolean, 9, "V", "t"), "1:1");
  EXPECT_EQ(get(Ini_GetBoolean, 9, "V", "f"), "1:0");
  EXPECT_EQ(get(Ini_GetBoolean, 9, "V", "yes"), "-1:9");
  EXPECT_EQ(get(Ini_GetBoolean, 9, "V", "blank"), "0:9");
  int i = 0;
  EXPECT_EQ(Ini_GetInt(nullptr, "V", "int", &i), -1);
  EXPECT_EQ(Ini_GetInt(doc, "V", "int", nullptr), -1);
}

TEST_F(Values, EscapesResolvedOnlyOnRequest) {
  EXPECT_EQ(Unescaped("tab"), "a\tb");
  char* raw = nullptr;
  EXPECT_EQ(Ini_GetPointerToRawString(doc, "V", "tab", &raw), 1);
  EXPECT_STREQ(raw, "a\\tb");
  EXPECT_EQ(Unescaped("hex"), "Aj");
  for (const char* cut : {"cut", "cut2", "tail"}) EXPECT_EQ(Unescaped(cut), "ab") << cut;
  EXPECT_EQ(Unescaped("esc"), "\n\r\\\"q");
  EXPECT_EQ(Unescaped("odd"), std::string(1, (char)(16 * -1 + 1)));  // lenient: wrong byte, no error
  EXPECT_EQ(Unescaped("quoted"), "  spaced  ");
  // Heap copies of exact size let the sanitizer see any over-read.
  for (const char* t : {"\\x4", "\\x", "\\", "x\\x41\\x4"}) {
    size_t n = strlen(t) + 1;
    std::unique_ptr<char[]> src(new char[n]), dst(new char[n]);
    memcpy(src.get(), t, n);
    EXPECT_EQ(UnescapeText(src.get(), dst.get()), 0);
    EXPECT_LE(strlen(dst.get()), strlen(src.get()));
  }
}

TEST_F(Values, StringCacheCopiesAndBuffers) {
  char* s = nullptr;
  EXPECT_EQ(Ini_GetPointerToString(doc, "V", "tab", &s), 1);
  EXPECT_EQ(GetHandleSize(doc->stringCache), 1024u);
  for (auto [ask, size] : {std::pair{1024u, 2048u}, {1023u, 1024u}, {3000u, 3072u}}) {
    EXPECT_EQ(SetStringCacheSize(doc, ask), 0);
    EXPECT_EQ(GetHandleSize(doc->stringCache), size) << ask;
  }
  s = (char*)1;
  EXPECT_EQ(Ini_GetPointerToString(doc, "V", "missing", &s), 0);
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(Ini_GetPointerToString(doc, "V", "tab", nullptr), -1);

  auto copy = [&](auto fn, const char* item) {
    char* c = (char*)1;
    int rc = fn(doc, "V", item, &c);
    std::string out = std::to_string(rc) + ":" + (c ? c : "null");
    free(c);
    return out;
  };
  EXPECT_EQ(copy(Ini_GetStringCopy, "hex"), "1:Aj");
  EXPECT_EQ(copy(Ini_GetRawStringCopy, "hex"), "1:\\x41\\x6a");
  EXPECT_EQ(copy(Ini_GetStringCopy, "missing"), "0:null");

  char buf[16];
  memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(Ini_GetStringIntoBuffer(doc, "V", "ten", buf, 10), 1);
  EXPECT_EQ(std::string(buf, 11), "0123456789Z");  // no NUL in the ten bytes
  memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(Ini_GetStringIntoBuffer(doc, "V", "hex", buf, 8), 1);
  EXPECT_EQ(std::string(buf, 9), std::string("Aj\0\0\0\0\0\0Z", 9));  // padded
  EXPECT_EQ(Ini_GetStringIntoBuffer(doc, "V", "blank", buf, 8), 1);
  EXPECT_STREQ(buf, "");
  buf[0] = 'x';
  EXPECT_EQ(Ini_GetStringIntoBuffer(doc, "V", "missing", buf, 8), 0);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(Ini_GetRawStringIntoBuffer(doc, "V", "tab", buf, 8), 1);
  EXPECT_STREQ(buf, "a\\tb");
}

TEST_F(Values, BinaryData) {
  unsigned char* data = nullptr;
  ViInt32 size = -1;
  EXPECT_EQ(Ini_GetData(doc, "V", "data", &data, &size), 1);
  ASSERT_EQ(size, 3);
  EXPECT_EQ(std::string((char*)data, 3), std::string("\xFF\x00\x80", 3));
  free(data);
  EXPECT_EQ(Ini_GetData(doc, "V", "short", &data, &size), 1);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(data, nullptr);
  size = 5;
  EXPECT_EQ(Ini_GetData(doc, "V", "missing", &data, &size), 0);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(Ini_GetData(doc, "V", "data", nullptr, &size), -1);
}

}  // namespace
