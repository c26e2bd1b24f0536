// The dynamic symbol table of libtcpvxi.so: a host resolves the entry points
// by name, so every expected name must be there in its expected form (plain C
// name or C++ type-encoded name), internal names must stay hidden, and
// nothing else may leak out.
#include <gtest/gtest.h>
#include <stdio.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

const char* kLibrary = KV_BUILD_DIR "/libtcpvxi.so";

struct Symbols {
  std::set<std::string> plain;  // unmangled names (C functions and variables)
  std::set<std::string> cpp;    // base names of global-namespace C++ functions
  std::vector<std::string> other;  // mangled names of anything else
  bool ok = false;
};

// "_Z<len><name>..." -> name; empty for nested or special names.
std::string baseName(const std::string& m) {
  size_t i = 2, len = 0;
  if (i >= m.size() || !isdigit((unsigned char)m[i])) return "";
  while (i < m.size() && isdigit((unsigned char)m[i])) len = len * 10 + (size_t)(m[i++] - '0');
  if (i + len > m.size()) return "";
  return m.substr(i, len);
}

Symbols readSymbols() {
  Symbols s;
  std::string cmd = std::string("nm -D --defined-only ") + kLibrary + " 2>/dev/null";
  FILE* f = popen(cmd.c_str(), "r");
  if (!f) return s;
  char line[4096];
  while (fgets(line, sizeof line, f)) {
    std::string l(line);
    while (!l.empty() && (l.back() == '\n' || l.back() == '\r')) l.pop_back();
    size_t sp = l.rfind(' ');
    if (sp == std::string::npos) continue;
    std::string name = l.substr(sp + 1);
    size_t at = name.find('@');  // version suffix, if any
    if (at != std::string::npos) name = name.substr(0, at);
    // Sanitizer builds add their own markers next to each exported variable.
    if (name.rfind("__odr_asan", 0) == 0 || name.rfind("__asan", 0) == 0 || name.rfind("__ubsan", 0) == 0)
      continue;
    if (name.rfind("_Z", 0) == 0) {
      std::string b = baseName(name);
      if (b.empty())
        s.other.push_back(name);
      else
        s.cpp.insert(b);
    } else {
      s.plain.insert(name);
    }
  }
  s.ok = pclose(f) == 0;
  return s;
}

// ------------------------------------------------------------- expectations

// Platform services and the logging hooks: plain names.
const std::vector<std::string> kPlainPlatform = {
    "util_timer_sec", "util_timer_ms", "util_timer_us", "util_getcounter", "util_getfreq",
    "util_delay_ms", "util_test_timer", "util_getpid", "util_gettid", "util_mutex_open",
    "util_mutex_lock", "util_mutexes_lock", "util_mutex_unlock", "util_mutex_close",
    "util_map_global", "util_unmap_global", "util_full_confname", "util_file_exist",
    "switch_thread", "kill_thread", "mutex_name_valid", "load_dll", "free_dll",
    "get_sym_address", "set_socket_state", "TransposeData", "path_to_config_in_home",
    "pkvFSpyLog", "pkvFRSpyLog"};

// Process-wide variables of the transport (global variables carry no type
// encoding, so they are plain in any case).
const std::vector<std::string> kPlainTransportData = {"cpintf", "pcpintf", "rpcrepl_backup",
                                                      "vxi11_InterruptID"};

// The driver's entry points, by group: plain names ...
const std::map<std::string, std::vector<std::string>> kPlainDriver = {
    {"lifecycle",
     {"tcpvxi_start", "tcpvxi_stop", "vintfGetExtIntf", "vintfSetExtIntf", "vintfInitVXIpath",
      "vintfInitHOSTpath", "vintfResetVXI", "vintfGetSysState"}},
    {"connection", {"vintfOpenDevice", "vintfCloseDevice"}},
    {"registers",
     {"vintfIn8", "vintfIn16", "vintfIn32", "vintfOut8", "vintfOut16", "vintfOut32", "vintfPeek8",
      "vintfPeek16", "vintfPeek32", "vintfPoke8", "vintfPoke16", "vintfPoke32"}},
    {"blocks",
     {"vintfMoveIn8", "vintfMoveIn16", "vintfMoveIn32", "vintfMoveOut8", "vintfMoveOut16",
      "vintfMoveOut32", "vintfMove"}},
    {"interrupts", {"vintfUserIRQCallback", "vintfIrqAddLA", "vintfIrqDelLA", "vintfTestIRQ"}},
    {"resources", {"vintfFillResources", "vintfGetNumRsrc", "vintfGetRsrcAttr", "vintfSetRsrcAttr"}},
};

// ... and C++ names.
const std::map<std::string, std::vector<std::string>> kCppDriver = {
    {"connection", {"vintfTryReopenDevice"}},
    {"word serial",
     {"vintfWScmd", "vintfWScmd2la", "vintfWSresp", "vintfWSreadSTB", "vintfWSrd", "vintfWSwrt",
      "vintfWSLcmd", "vintfWSLresp", "vintfWStrg", "vintfWSclr"}},
};

// Transport: connection record, socket primitives, HiSLIP, raw, message I/O.
const std::vector<std::string> kCppTransport = {
    "kvtcp_Lock", "kvtcp_UnLock", "kvtcp_setCallback", "kvtcp_Disconnect", "kvtcp_Close",
    "kvtcp_toIpAddress", "kvtcp_sock_setNoDelay", "kvtcp_sock_setKeepAlive", "kvtcp_Read",
    "kvtcp_Write", "kvtcp_Query", "kvtcp_ReadSTB", "kvtcp_Clear", "kvtcp_hislip_Connect",
    "kvtcp_kvhislip_Write", "kvtcp_kvhislip_Query", "kvtcp_sock_Connect", "CheckForRecv",
    "sendAll", "recvMin", "recvResp", "recvExact", "recvClear", "SendHdrData", "myntohl",
    "myhtonl", "myhtons", "transpose_matrix"};

// VXI-11 link and interrupt channel.
const std::vector<std::string> kCppVxi11 = {
    "kvtcp_vxi11_Connect", "kvtcp_vxi11_EnableEvents", "vxi11CoreRequest",
    "vxi11Core2BufRequest", "GetPMapVXI11", "vxi11CreateLink", "vxi11DestroyLink",
    "vxi11FullConnect", "getCoreProcName"};

// INI reader and line reader.
const std::vector<std::string> kCppIni = {
    "Ini_New", "Ini_Dispose", "Ini_ReadFromFile", "Ini_ReadGeneric", "Ini_SetTokens",
    "Ini_SetSectionFilter", "Ini_SetDuplicateChecking", "Ini_Sort", "Ini_DisableSorting",
    "Ini_SortInternally", "Ini_DisableInternalSorting", "Ini_NumberOfSections",
    "Ini_NthSectionName", "Ini_NumberOfItems", "Ini_NthItemName", "Ini_SectionExists",
    "Ini_RemoveSection", "Ini_LineOfLastAccess", "Ini_Get", "Ini_GetPointerToRawString",
    "Ini_GetPointerToString", "Ini_GetStringCopy", "Ini_GetRawStringCopy",
    "Ini_GetStringIntoBuffer", "Ini_GetRawStringIntoBuffer", "Ini_GetInt", "Ini_GetUInt",
    "Ini_GetDouble", "Ini_GetBoolean", "Ini_GetData", "Ini_ItemExists",
    "Ini_ItemOrMultiLineItemExists", "LineFile_New", "LineFile_Dispose", "LineFile_Read",
    "LineFile_ReadNonEmpty", "LineFile_NumLinesRead", "LineFile_OffsetOfLastLine",
    "LineFile_NumExtraLineTermChars", "LineFile_NumCharsInEmptyLines", "LineFile_ReadFromFile"};

// Item lists, handles, sorting and string helpers.
const std::vector<std::string> kCppToolbox = {
    "NewHandle", "DisposeHandle", "GetHandleSize", "SetHandleSize", "ListCreate", "ListDispose",
    "ListDisposePtrList", "ListClear", "ListSetAllocationPolicy", "ListPreAllocate",
    "ListCompact", "ListCopy", "ListAppend", "ListEqual", "ListInsertItem", "ListInsertItems",
    "ListReplaceItem", "ListReplaceItems", "ListRemoveItem", "ListRemoveItems", "ListGetItem",
    "ListGetItems", "ListGetPtrToItem", "ListGetDataPtr", "ListGetItemSize", "ListNumItems",
    "ListApplyToEach", "ListFindItem", "ListBinSearch", "ListIsSorted", "ListInsertInOrder",
    "ListRemoveDuplicates", "ListQuickSort", "ListHeapSort", "ListInsertionSort",
    "ListMemBlockCmp", "ObjectExists", "DeRegisterExistence", "ShortCompare", "IntCompare",
    "FloatCompare", "DoubleCompare", "CStringCompare", "CStringNoCaseCompare", "QSort",
    "HeapSort", "InsertionSort", "BinSearch", "SwapBlock", "StrDupl", "AppendString",
    "AddStringPrefix", "AddStringQuotes", "SkipWhiteSpace", "SkipNonWhiteSpace",
    "HasNonWhiteSpace", "RemoveSurroundingWhiteSpace", "StrDupWithoutSurrWhiteSpace",
    "stricmpWithoutSurrWhiteSpace", "SpliceCommaSeparatedList", "ConvertDataToText",
    "ConvertTextToData", "ConvertNumStrToUint", "StrToInt", "StrToUInt"};

// Internal routines that must stay hidden under either form.
const std::vector<std::string> kHidden = {
    "Ini_SetDefaultTokens", "Ini_FindSection", "Ini_FindEntry", "Ini_AnalyzeItemName",
    "Ini_LineTextInputFunction", "tcpEventHandler", "GetResmanText", "ConnectTmo",
    "open_mutex_core", "open_mutex_intf", "WaitIntfLock", "ReleaseIntfLock", "WaitCoreLock",
    "ReleaseCoreLock", "get_timespec", "diff_timespec", "global_var", "user_callback",
    "kvtcp_sys_send", "kvtcp_sys_recv", "kvtcp_sys_delay_ms"};

bool inList(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}


void expectPlain(const Symbols& s, const std::vector<std::string>& names) {
  for (auto& n : names) {
    EXPECT_TRUE(s.plain.count(n)) << n << " is not exported under its plain name";
    EXPECT_FALSE(s.cpp.count(n)) << n << " is exported under a C++ name";
  }
}

void expectCpp(const Symbols& s, const std::vector<std::string>& names) {
  for (auto& n : names) {
    EXPECT_TRUE(s.cpp.count(n)) << n << " is not exported under its C++ name";
    EXPECT_FALSE(s.plain.count(n)) << n << " is exported under a plain name";
  }
}

class Abi : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { syms_ = new Symbols(readSymbols()); }
  static void TearDownTestSuite() { delete syms_; }
  static const Symbols& syms() { return *syms_; }
  static inline Symbols* syms_ = nullptr;
};

}  // namespace

TEST_F(Abi, SymbolTableIsReadable) {
  ASSERT_TRUE(syms().ok) << "nm failed on " << kLibrary;
  EXPECT_FALSE(syms().plain.empty());
}

TEST_F(Abi, PlatformServicesArePlain) { expectPlain(syms(), kPlainPlatform); }

TEST_F(Abi, TransportHasCppNames) {
  expectCpp(syms(), kCppTransport);
  for (auto& n : kPlainTransportData) EXPECT_TRUE(syms().plain.count(n)) << n;
}

TEST_F(Abi, Vxi11Family) { expectCpp(syms(), kCppVxi11); }

TEST_F(Abi, DriverFamily) {
  std::map<std::string, std::pair<std::vector<std::string>, std::vector<std::string>>> groups;
  for (auto& [g, names] : kPlainDriver) groups[g].first = names;
  for (auto& [g, names] : kCppDriver) groups[g].second = names;
  for (auto& [g, lists] : groups) {
    SCOPED_TRACE("driver group: " + g);
    expectPlain(syms(), lists.first);
    expectCpp(syms(), lists.second);
  }
}

TEST_F(Abi, IniFamily) { expectCpp(syms(), kCppIni); }

TEST_F(Abi, ToolboxFamily) { expectCpp(syms(), kCppToolbox); }

TEST_F(Abi, InternalsStayHidden) {
  for (auto& n : kHidden) {
    EXPECT_FALSE(syms().plain.count(n)) << n << " is exported";
    EXPECT_FALSE(syms().cpp.count(n)) << n << " is exported";
  }
}

TEST_F(Abi, NoStrayExports) {
  std::vector<std::string> plainAllowed = kPlainPlatform;
  plainAllowed.insert(plainAllowed.end(), kPlainTransportData.begin(), kPlainTransportData.end());
  for (auto& [g, names] : kPlainDriver) plainAllowed.insert(plainAllowed.end(), names.begin(), names.end());
  plainAllowed.push_back("isNT");  // declared for the platform unit's interface
  std::vector<std::string> cppAllowed;
  for (auto* v : {&kCppTransport, &kCppVxi11, &kCppIni, &kCppToolbox})
    cppAllowed.insert(cppAllowed.end(), v->begin(), v->end());
  for (auto& [g, names] : kCppDriver) cppAllowed.insert(cppAllowed.end(), names.begin(), names.end());
  for (auto& n : syms().plain) EXPECT_TRUE(inList(plainAllowed, n)) << "stray plain export: " << n;
  for (auto& n : syms().cpp) EXPECT_TRUE(inList(cppAllowed, n)) << "stray C++ export: " << n;
  for (auto& n : syms().other) ADD_FAILURE() << "stray export (class, namespace or template): " << n;
}

TEST(AbiParse, BaseNames) {
  EXPECT_EQ(baseName("_Z10kvtcp_LockP10_KvTcpInfo"), "kvtcp_Lock");
  EXPECT_EQ(baseName("_Z7sendAlliPKciPi"), "sendAll");
  EXPECT_EQ(baseName("_ZNSt6vectorIiSaIiEE17_M_realloc_insertEv"), "");
  EXPECT_EQ(baseName("_Z99short"), "");
}
