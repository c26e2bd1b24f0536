// The command language: words of a line (quotes and escapes), numbers with
// their ranges, address spaces, interface names and VISA resource names.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace host {

// A command that cannot run as typed; the message says why.
struct Usage : std::runtime_error {
  using std::runtime_error::runtime_error;
};

using Args = std::vector<std::string>;

// Splits a line into commands (at ';') and words (at blanks).  "..." and
// '...' group; \n \r \t \\ \" \' \; \xHH escape outside single quotes; '#'
// at the start of a word begins a comment.  Throws Usage on an unterminated
// quote or a bad escape.
std::vector<Args> parseLine(const std::string& line);

// A number in decimal or 0x hex, at most `max`; the message names `what`.
uint64_t number(const std::string& text, const char* what, uint64_t max);
// Bits of an access: 8, 16 or 32.
unsigned parseWidth(const std::string& text);
// a16, a24 or a32 (1, 2, 3); the highest offset of the space in *limit.
uint16_t parseSpace(const std::string& text, uint64_t* limit = nullptr);
// An interface: its number or its name (TCP-VXI0).
uint16_t parseIntf(const std::string& text);

// An instrument as typed: the index in its interface's list, a logical
// address (la:16), or a VISA name (VXI0::16::INSTR, board = interface).
struct InstrRef {
  enum Kind { Index, LA, Name } kind = Index;
  unsigned value = 0;  // index or logical address
  int board = -1;      // interface named by a VISA name
};
bool isVisaInstrName(const std::string& text);
InstrRef parseInstr(const std::string& text);

// A VISA TCPIP resource of the general transport.
struct TcpipResource {
  enum Kind { HiSLIP, VXI11, Socket } kind = VXI11;
  std::string host;    // as typed
  std::string device;  // hislip0, inst0, ...
  uint16_t port = 0;   // Socket
};
TcpipResource parseTcpip(const std::string& text);

// key=value options behind the positional words; returns the value or "".
bool takeFlag(Args& a, const std::string& flag);
bool takeOption(Args& a, const std::string& key, std::string* value);

}  // namespace host
