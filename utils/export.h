/// @file
/// The one export macro of libzel_utils: the library is built with hidden
/// symbols, and everything a client may call carries ZEL_API.
#pragma once

/// Exports a declaration from libzel_utils: a function, or a whole class (its
/// members, vtable and type information). Everything a client may call
/// carries it.
#if defined(_WIN32)
#define ZEL_API __declspec(dllexport)
#else
#define ZEL_API __attribute__((visibility("default")))
#endif

/// Marks the private members of an exported class (one with virtual functions,
/// whose vtable and type information clients need) that stay inside the library.
#if defined(_WIN32)
#define ZEL_INTERNAL
#else
#define ZEL_INTERNAL __attribute__((visibility("hidden")))
#endif

/// @def ZEL_BEGIN_C_LINKAGE
/// Opens a block of C-linkage declarations that take or return C++ types (every
/// client is C++): the symbols keep their plain names, and clang's warning about
/// a C++ result type under C linkage is quieted for just those lines. Closed by
/// ZEL_END_C_LINKAGE.
#if defined(__clang__)
#define ZEL_BEGIN_C_LINKAGE        \
  _Pragma("clang diagnostic push") \
      _Pragma("clang diagnostic ignored \"-Wreturn-type-c-linkage\"") extern "C" {
#define ZEL_END_C_LINKAGE \
  }                       \
  _Pragma("clang diagnostic pop")
#else
#define ZEL_BEGIN_C_LINKAGE extern "C" {
#define ZEL_END_C_LINKAGE }
#endif

/// @def ZEL_END_C_LINKAGE
/// Closes a block opened by ZEL_BEGIN_C_LINKAGE.
