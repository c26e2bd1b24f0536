// The C library's classification and case tables of the current locale,
// read directly: the same answers as isspace, tolower and toupper without a
// function call per character (the INI reader and its string helpers look
// at every character of every name many times over).
#ifndef KV_CHARTABLES_H
#define KV_CHARTABLES_H

#include <ctype.h>

#ifdef __GLIBC__
struct CharTables {
  const unsigned short* cls = *__ctype_b_loc();
  const int* lower = *__ctype_tolower_loc();
  const int* upper = *__ctype_toupper_loc();
  bool space(unsigned char c) const { return (cls[c] & (unsigned short)_ISspace) != 0; }
  int fold(unsigned char c) const { return lower[c]; }
  int up(unsigned char c) const { return upper[c]; }
};
#else
struct CharTables {
  bool space(unsigned char c) const { return isspace(c) != 0; }
  int fold(unsigned char c) const { return tolower(c); }
  int up(unsigned char c) const { return toupper(c); }
};
#endif

#endif
