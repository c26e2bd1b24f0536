// Symbol visibility.  The library is built with hidden visibility; only what
// is marked here is exported.  KV_EXPORT_C gives a plain (unmangled) symbol,
// KV_EXPORT keeps the C++ (type-encoded) name.
#ifndef KV_EXPORT_H
#define KV_EXPORT_H

#define KV_EXPORT __attribute__((visibility("default")))
#define KV_EXPORT_C extern "C" __attribute__((visibility("default")))

#endif
