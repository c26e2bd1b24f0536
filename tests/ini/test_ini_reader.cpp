// Reading INI documents (line classes, quoting, tokens, filters, duplicates,
// multi-line items, sorting, line ends, real files) and typed value access
// (conversions, the untouched-output rule, escapes, the string cache, buffer
// copies, binary data).
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ini_internal.h"

namespace {

using namespace std::string_literals;
using Strings = std::vector<std::string>;

// A document that disposes of itself; it converts to the IniText the calls take.
struct Doc {
  std::unique_ptr<IniStructForwardReferenceTag, void (*)(IniText)> p;
  explicit Doc(IniText d) : p(d, Ini_Dispose) {}
  operator IniText() const { return p.get(); }
  IniText operator->() const { return p.get(); }
};

// A line source over prepared lines; line numbers from 1.
struct Lines { Strings v; size_t next = 0; };
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

int ReadInto(IniText doc, Strings lines) {
  Lines src{std::move(lines)};
  return Ini_ReadGeneric(doc, Source, &src);
}

Doc Read(Strings lines, int sorted = 0) {
  Doc doc(Ini_New(sorted));
  EXPECT_GE(ReadInto(doc, std::move(lines)), 0);
  return doc;
}

std::string Raw(IniText doc, const char* sec, const char* item) {
  char* v = nullptr;
  return Ini_Get(doc, sec, item, &v) == 1 ? std::string(v) : std::string("<none>");
}

// The raw values of several items of one section.
Strings Raws(IniText doc, const char* sec, std::initializer_list<const char*> items) {
  Strings out;
  for (const char* item : items) out.push_back(Raw(doc, sec, item));
  return out;
}

// The n-th section's name in the document's order, or "<none>".
std::string Section(IniText doc, int n) {
  char* name = nullptr;
  return Ini_NthSectionName(doc, n, &name) == 1 ? std::string(name) : std::string("<none>");
}

// A LineFile over an in-memory byte string, delivered in chunks.
struct MemBytes { std::string data; size_t pos = 0, chunk = 2048; };
int MemRead(void* src, int n, int* got, void* dest) {
  MemBytes* m = (MemBytes*)src;
  size_t k = std::min({(size_t)n, m->data.size() - m->pos, m->chunk});
  memcpy(dest, m->data.data() + m->pos, k);
  m->pos += k;
  *got = (int)k;
  return 0;
}

Strings AllLines(const std::string& bytes, size_t chunk = 2048) {
  MemBytes m{bytes, 0, chunk};
  LineFile lf = LineFile_New(MemRead, &m);
  Strings out;
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

TEST(Parser, LineClasses) {
  // a, b: the section, or the name and value
  struct Case { const char* line; int kind; const char *a = nullptr, *b = nullptr; };
  const Case cases[] = {{"  ;comment = x", kIni_CommentLine}, {"=x", kIni_NotAnIniLine}, {"   = x", kIni_NotAnIniLine},
                        {"no separator", kIni_NotAnIniLine},   {"a =", kIni_TagAndValueLine, "a", ""},
                        {" a b = b=c  ", kIni_TagAndValueLine, "a b", "b=c"},
                        {"[ A ] ", kIni_SectionLine, "A"},    {"[a]b]", kIni_SectionLine, "a]b"},
                        {"[a] x", kIni_NotAnIniLine},          {"[  ]", kIni_NotAnIniLine},
                        {"[open", kIni_NotAnIniLine}};
  Doc doc(Ini_New(0));
  char sec[256], name[256], value[256];
  for (const Case& c : cases) {
    EXPECT_EQ(ParseTagTextLine(doc, c.line, sec, name, value), c.kind) << c.line;
    std::string got = c.kind == kIni_SectionLine ? sec : std::string(name) + "|" + value;
    if (c.a) {
      EXPECT_EQ(got, c.b ? std::string(c.a) + "|" + c.b : c.a) << c.line;
    }
  }
  EXPECT_EQ(ParseTagTextLine(nullptr, "a=b", sec, name, value), -1);
}

TEST(Parser, QuotesItemsBeforeSectionsAndDuplicates) {
  Doc doc = Read(
      {"early = dropped", "[S]", "key = \"quoted value\"", "one = \"", "two = \"\"", "x=1", "X = 2", "[s]", "x = 3"});
  EXPECT_EQ(Ini_NumberOfSections(doc), 2);  // duplicates are kept
  // A linear search finds the first of equal names.
  EXPECT_EQ(Raws(doc, "S", {"key", "one", "two", "x"}), (Strings{"quoted value", "\"", "", "1"}));
  EXPECT_EQ(Ini_NumberOfItems(doc, "S"), 5);
  IniSection s = Ini_FindSection(doc, "S");
  EXPECT_EQ(Ini_FindEntry(s, "key")->sourceLine, 3);
  EXPECT_EQ(s->sourceLine, 2);
  EXPECT_EQ(Raw(doc, "", "early"), "<none>");
}

int KeepOnlyB(IniText, void* data, const char* name) {
  ++*(int*)data;
  return strcmp(name, "B") == 0;
}

TEST(Parser, CustomTokensAndSectionFilter) {
  Doc doc(Ini_New(0));
  ASSERT_EQ(Ini_SetTokens(doc, '<', '>', ":=", "#"), 0);
  EXPECT_STREQ(doc->nameValueOutputSeparatorToken, " := ");
  ASSERT_GE(ReadInto(doc, {"<Sec>", "a := b", "c = d", "# x := y", "; e := f"}), 0);
  EXPECT_EQ(Raws(doc, "Sec", {"a", "c", "; e"}), (Strings{"b", "<none>", "f"}));
  EXPECT_EQ(Ini_NumberOfItems(doc, "Sec"), 2);
  ASSERT_EQ(Ini_SetTokens(doc, 0, 0, "0123456789", nullptr), 0);  // long token is cut
  EXPECT_STREQ(doc->nameValueInputSeparatorToken, "0123456");
  EXPECT_EQ(doc->sectionNameStartChar, '<');
  EXPECT_EQ(Ini_SetTokens(nullptr, 0, 0, nullptr, nullptr), -1);

  Doc filtered(Ini_New(0));
  int calls = 0;
  ASSERT_EQ(Ini_SetSectionFilter(filtered, KeepOnlyB, &calls), 0);
  ASSERT_GE(ReadInto(filtered, {"[A]", "a=1", "[B]", "b=2", "[C]", "c=3"}), 0);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(Ini_NumberOfSections(filtered), 1);
  EXPECT_EQ(Raws(filtered, "B", {"b", "c"}), (Strings{"2", "<none>"}));
}

TEST(Parser, MultiLineItems) {
  Doc doc = Read({"[S]", "Text Line1 = ab", "Text Line2 = cd", "plain = p", "Other Line2 = zz", "A Line1 = 1",
                  "B Line7 = 2", "C Line1 = 3", "Lone Line1 = solo", "x Line2y = keep"});
  // Other Line2 has no line 1 before it and stays as it is; loose grouping
  // lets B Line7 join A.
  EXPECT_EQ(Raws(doc, "S", {"Text", "Other Line2", "A", "C", "Lone", "x Line2y"}),
            (Strings{"abcd", "zz", "12", "3", "solo", "keep"}));
  char* name = nullptr;
  ASSERT_EQ(Ini_NthItemName(doc, "S", 1, &name), 1);
  EXPECT_STREQ(name, "Text ");  // the blank before "Line" stays, look-ups ignore it
  EXPECT_EQ(Ini_ItemOrMultiLineItemExists(doc, "S", "Text Line2"), 0);
  // A continuation directly after a group joins it, whatever its name
  // (deliberately); a group needs its line 1.
  doc = Read({"[S]", "Text Line1 = ab", "Text Line2 = cd", "Other Line2 = zz", "[T]", "U Line2 = cd", "U Line3 = ef"});
  EXPECT_EQ(Raw(doc, "S", "Text"), "abcdzz");
  EXPECT_EQ(Ini_NumberOfItems(doc, "S"), 1);
  EXPECT_EQ(Raw(doc, "T", "U Line2"), "cd");
  int n = 0;
  for (const char* notNumbered : {"a Line99999999999999999999", "a line1", "a Line"})
    EXPECT_EQ(Ini_AnalyzeItemName(notNumbered, &n), 0) << notNumbered;
  EXPECT_EQ(Ini_AnalyzeItemName("a Line12", &n), 1);
  EXPECT_EQ(n, 12);
}

TEST(Parser, SortingAndInternalSorting) {
  Doc doc = Read({"[zeta]", "b=1", "A=2", "[Alpha]", "MANF_ID=5", "MANFNAME=6", "MAINFRAME_LA=7"}, 1);
  EXPECT_EQ(Section(doc, 1) + Section(doc, 2) + Section(doc, 3) + Section(doc, 0), "Alphazeta<none><none>");
  char* name = nullptr;
  ASSERT_EQ(Ini_NthItemName(doc, "zeta", 1, &name), 1);
  EXPECT_STREQ(name, "A");
  EXPECT_EQ(Ini_NthSectionName(doc, 1, nullptr), -1);
  // names with characters between 'Z' and 'a' are still found by binary search
  EXPECT_EQ(Raw(doc, " alpha ", "manf_id") + Raw(doc, "ALPHA", "MANFNAME") + Raw(doc, "Alpha", "MAINFRAME_LA"), "567");

  doc = Read({"[c]", "k=3", "[a]", "k=1", "[b]", "k=2", "j=0"});
  ASSERT_EQ(Ini_SortInternally(doc), 0);
  EXPECT_EQ(Section(doc, 1), "c");  // file order kept
  EXPECT_EQ(Raw(doc, "b", "j") + Raw(doc, "a", "k"), "01");
  ASSERT_EQ(ReadInto(doc, {"[0]", "z=9"}), 0);  // copies rebuilt after reading
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
}

// Sorted look-ups against a plain linear scan of the same names: every name
// (case, surrounding blanks, a coalesced name that keeps its blank, a name
// longer than a line's parse buffer given as the key) finds exactly what
// the unsorted document finds.
TEST(Parser, SortedLookupsFindWhatALinearScanFinds) {
  std::string longKey(300, 'q');
  Strings lines = {"[ Zeta ]", "B=1",     "a b=2", "Text Line1=x", "Text Line2=y",
                   "_=3",      "[ALPHA]", "k=4",   "[alpha2]",     "K=5"};
  Doc sorted = Read(lines, 1), plain = Read(lines, 0);
  const char* keys[][2] = {{"zeta", "b"},         {" ZETA ", " B "}, {"Zeta", "A B"}, {"zeta", "a  b"},
                           {"zeta", "text"},      {"zeta", "TEXT "}, {"zeta", "_"},   {"alpha", "K"},
                           {"Alpha2", "k "},      {"alpha", "k2"},   {"alph", "k"},   {"zeta", longKey.c_str()},
                           {longKey.c_str(), "k"}};
  for (auto& k : keys) EXPECT_EQ(Raw(plain, k[0], k[1]), Raw(sorted, k[0], k[1])) << k[0] << "/" << k[1];
  EXPECT_EQ(Raw(sorted, " zeta", "TEXT"), "xy");
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
  Doc doc(Ini_New(0));
  EXPECT_EQ(Ini_ReadGeneric(
                doc, [](void*, char*, int, int*, int*) { return -7; }, nullptr),
            -7);
  int state = 0;
  EXPECT_GE(Ini_ReadGeneric(doc, OverfillingSource, &state), 0);
  EXPECT_EQ(AllLines(std::string(300, 'x') + "\nnext\n"), (Strings{std::string(255, 'x'), "next"}));
}

TEST(LineReader, LineEndKinds) {
  for (const char* end : {"\r\n", "\n", "\r", "\n\r"}) {
    std::string text = std::string("a") + end + "b" + end + "c";
    for (size_t chunk : {1u, 2u, 2048u}) EXPECT_EQ(AllLines(text, chunk), (Strings{"a", "b", "c"}));
  }
  // (A leading line end is swallowed.)
  for (auto [text, want] : {std::pair{"a\r\rb"s, Strings{"a", "", "b"}}, {"a\r\n\r\nb", {"a", "", "b"}},
                            {"a\0b"s, {"a", "b"}}, {"", {}}, {"\nx", {"x"}}})
    EXPECT_EQ(AllLines(text), want);
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
  std::string path = testing::TempDir() + "initest-" + std::to_string(getpid()) + ".ini";
  std::ofstream(path, std::ios::binary) << "; resource file\r\n[COMMON]\r\nNumIntf = 2\r\n\r\n"
                                           "[INTF0]\r\nADDR = \"127.0.0.2\"\r\n";
  Doc doc(Ini_New(1));
  EXPECT_EQ(Ini_ReadFromFile(doc, path.c_str()), 0);
  int n = 0;
  EXPECT_EQ(Ini_GetInt(doc, "COMMON", "NumIntf", &n), 1);
  EXPECT_EQ(n, 2);
  EXPECT_EQ(Ini_LineOfLastAccess(doc), 3);
  EXPECT_EQ(Raw(doc, "INTF0", "ADDR"), "127.0.0.2");
  EXPECT_EQ(Ini_LineOfLastAccess(doc), 6);

  Doc other(Ini_New(0));
  testing::internal::CaptureStderr();
  EXPECT_EQ(Ini_ReadFromFile(other, (path + ".missing").c_str()), -1);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("Can't open file: ", 0), 0u) << err;
  EXPECT_EQ(Ini_ReadFromFile(nullptr, path.c_str()), -1);
  unlink(path.c_str());
}

class Values : public testing::Test {
 protected:
  Doc doc = Read({"[V]", "blank =   ", "int = -42", "big = 2147483648", "neg = -1", "uint = 4294967295", "inf = INF",
                  "minf = -inf", "pinf = +Inf", "sci = 1.5e3", "bad = 1.5x", "t = TRUE", "f = false", "yes = yes",
                  "tab = a\\tb", "hex = \\x41\\x6a", "cut = ab\\x4", "cut2 = ab\\x", "tail = ab\\",
                  "esc = \\n\\r\\\\\\\"\\q", "ten = 0123456789", "odd = \\xZ1", "data = bo00", "short = A",
                  "quoted = \"  spaced  \""},
                 1);
  std::string Unescaped(const char* item) {
    char* s = nullptr;
    EXPECT_EQ(Ini_GetPointerToString(doc, "V", item, &s), 1) << item;
    return s ? std::string(s) : std::string();
  }
};

// "result:value": 1 found and converted, 0 absent or blank (output
// untouched), -1 present but not convertible.
TEST_F(Values, NumbersBooleansAndUntouchedOutputs) {
  auto getter = [&](auto fn, auto start) {
    return [=, this](const char* sec, const char* item) {
      auto v = start;
      int rc = fn(doc, sec, item, &v);
      std::ostringstream o;
      o << rc << ":" << v;
      return o.str();
    };
  };
  auto i = getter(Ini_GetInt, 77);
  auto u = getter(Ini_GetUInt, 5u);
  auto d = getter(Ini_GetDouble, 3.0);
  auto b = getter(Ini_GetBoolean, 9);
  // The failed double conversion stores its value all the same.
  for (auto [got, want] :
       {std::pair{i("V", "blank"), "0:77"}, {i("V", "missing"), "0:77"}, {i("nosection", "int"), "0:77"},
        {i("V", "big"), "-1:77"}, {i("V", "int"), "1:-42"}, {u("V", "neg"), "-1:5"}, {u("V", "blank"), "0:5"},
        {u(" v ", " UINT "), "1:4294967295"}, {d("V", "inf"), "1:inf"}, {d("V", "minf"), "1:-inf"},
        {d("V", "pinf"), "1:inf"}, {d("V", "sci"), "1:1500"}, {d("V", "bad"), "-1:1.5"}, {d("V", "blank"), "0:3"},
        {b("V", "t"), "1:1"}, {b("V", "f"), "1:0"}, {b("V", "yes"), "-1:9"}, {b("V", "blank"), "0:9"}})
    EXPECT_EQ(got, want);
  int n = 0;
  EXPECT_EQ(Ini_GetInt(nullptr, "V", "int", &n), -1);
  EXPECT_EQ(Ini_GetInt(doc, "V", "int", nullptr), -1);
}

TEST_F(Values, EscapesResolvedOnlyOnRequest) {
  for (auto [item, want] : {std::pair{"tab", "a\tb"}, {"hex", "Aj"}, {"cut", "ab"}, {"cut2", "ab"}, {"tail", "ab"},
                            {"esc", "\n\r\\\"q"}, {"quoted", "  spaced  "}})
    EXPECT_EQ(Unescaped(item), want) << item;
  EXPECT_EQ(Unescaped("odd"), std::string(1, (char)(16 * -1 + 1)));  // lenient: wrong byte, no error
  char* raw = nullptr;
  EXPECT_EQ(Ini_GetPointerToRawString(doc, "V", "tab", &raw), 1);
  EXPECT_STREQ(raw, "a\\tb");
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

  // "result:" and the buffer's bytes up to one past the given size, which
  // starts out as 'Z's: strncpy pads, and fills a short buffer without a NUL.
  auto into = [&](auto fn, const char* item, int size) {
    char buf[16];
    memset(buf, 'Z', sizeof buf);
    int rc = fn(doc, "V", item, buf, size);
    return std::to_string(rc) + ":" + std::string(buf, (size_t)size + 1);
  };
  for (auto [got, want] : {std::pair{into(Ini_GetStringIntoBuffer, "ten", 10), "1:0123456789Z"s},
                           {into(Ini_GetStringIntoBuffer, "hex", 8), "1:Aj\0\0\0\0\0\0Z"s},
                           {into(Ini_GetStringIntoBuffer, "blank", 8), "1:\0\0\0\0\0\0\0\0Z"s},
                           {into(Ini_GetStringIntoBuffer, "missing", 8), "0:\0ZZZZZZZZ"s},
                           {into(Ini_GetRawStringIntoBuffer, "tab", 8), "1:a\\tb\0\0\0\0Z"s}})
    EXPECT_EQ(got, want);
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
