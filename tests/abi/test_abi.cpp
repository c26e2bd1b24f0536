// The dynamic symbol table of libtcpvxi.so: a host resolves the entry points
// by name, so every expected name must be there in its expected form (plain C
// name or C++ type-encoded name), internal names must stay hidden, and
// nothing else may leak out.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <cctype>
#include <set>
#include <string>
#include <vector>

namespace {

const char* kLibrary = KV_BUILD_DIR "/libtcpvxi.so";

struct Symbols {
  std::set<std::string> plain;     // unmangled names (C functions and variables)
  std::set<std::string> cpp;       // base names of global-namespace C++ functions
  std::vector<std::string> other;  // mangled names of anything else
  bool ok = false;
};

Symbols readSymbols() {
  Symbols s;
  FILE* f = popen((std::string("nm -D --defined-only -j ") + kLibrary + " 2>/dev/null").c_str(), "r");
  if (!f) return s;
  char line[4096];
  while (fgets(line, sizeof line, f)) {
    std::string name(line, strcspn(line, "@\r\n"));  // without a version suffix
    // Sanitizer builds add their own markers next to each exported variable.
    if (name.empty() || name.rfind("__odr_asan", 0) == 0 || name.rfind("__asan", 0) == 0 ||
        name.rfind("__ubsan", 0) == 0)
      continue;
    if (name.rfind("_Z", 0) != 0) {
      s.plain.insert(name);
      continue;
    }
    // "_Z<len><name>...": a global-namespace function; nested names start
    // with a letter ("_ZN...", "_ZSt...").
    size_t i = 2, len = 0;
    while (i < name.size() && isdigit((unsigned char)name[i])) len = len * 10 + (size_t)(name[i++] - '0');
    if (i > 2 && i + len <= name.size())
      s.cpp.insert(name.substr(i, len));
    else
      s.other.push_back(name);
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

// The driver's entry points: lifecycle, connection, registers, blocks,
// interrupts and resources are plain ...
const std::vector<std::string> kPlainDriver = {
    "tcpvxi_start", "tcpvxi_stop", "vintfGetExtIntf", "vintfSetExtIntf", "vintfInitVXIpath",
    "vintfInitHOSTpath", "vintfResetVXI", "vintfGetSysState", "vintfOpenDevice", "vintfCloseDevice",
    "vintfIn8", "vintfIn16", "vintfIn32", "vintfOut8", "vintfOut16", "vintfOut32", "vintfPeek8",
    "vintfPeek16", "vintfPeek32", "vintfPoke8", "vintfPoke16", "vintfPoke32", "vintfMoveIn8",
    "vintfMoveIn16", "vintfMoveIn32", "vintfMoveOut8", "vintfMoveOut16", "vintfMoveOut32", "vintfMove",
    "vintfUserIRQCallback", "vintfIrqAddLA", "vintfIrqDelLA", "vintfTestIRQ", "vintfFillResources",
    "vintfGetNumRsrc", "vintfGetRsrcAttr", "vintfSetRsrcAttr"};

// ... the reopen and Word Serial ones have C++ names.
const std::vector<std::string> kCppDriver = {
    "vintfTryReopenDevice", "vintfWScmd", "vintfWScmd2la", "vintfWSresp", "vintfWSreadSTB", "vintfWSrd",
    "vintfWSwrt", "vintfWSLcmd", "vintfWSLresp", "vintfWStrg", "vintfWSclr"};

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

}  // namespace

// Every listed name exported in its form (plain C or C++ type-encoded), and
// nothing else: an internal routine that loses its hidden visibility, or a
// listed name exported in the other form, shows as a stray export.
TEST(Abi, ExactlyTheListedNamesInTheirForm) {
  const Symbols s = readSymbols();
  ASSERT_TRUE(s.ok) << "nm failed on " << kLibrary;
  std::set<std::string> plain, cpp;
  for (auto* v : {&kPlainPlatform, &kPlainTransportData, &kPlainDriver}) plain.insert(v->begin(), v->end());
  for (auto* v : {&kCppTransport, &kCppVxi11, &kCppIni, &kCppToolbox, &kCppDriver})
    cpp.insert(v->begin(), v->end());
  for (auto& n : plain) EXPECT_TRUE(s.plain.count(n)) << n << " is not exported under its plain name";
  for (auto& n : cpp) EXPECT_TRUE(s.cpp.count(n)) << n << " is not exported under its C++ name";
  // isNT: declared for the platform unit's interface.
  for (auto& n : s.plain) EXPECT_TRUE(plain.count(n) || n == "isNT") << "stray plain export: " << n;
  for (auto& n : s.cpp) EXPECT_TRUE(cpp.count(n)) << "stray C++ export: " << n;
  for (auto& n : s.other) ADD_FAILURE() << "stray export (class, namespace or template): " << n;
}
