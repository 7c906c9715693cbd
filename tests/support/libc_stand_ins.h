// Test-only replacements of getlogin(), malloc() and calloc(), defined in the
// test program so that they take the place of the C library's for the
// library under test too:
//   - getlogin() answers as the C library does unless a test chose a login
//     name (or none) with LoginAs / NoLogin;
//   - malloc() and calloc() fail once, on demand, for one request size.
// Include in exactly one source file of a test program.
#pragma once

#include <dlfcn.h>
#include <errno.h>

#include <atomic>
#include <cstddef>
#include <string>

// The sanitizers bring their own allocator, which a replacement here would bypass.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZEL_TEST_CAN_FAIL_ALLOCATIONS 0
#else
#define ZEL_TEST_CAN_FAIL_ALLOCATIONS 1
#endif

namespace zeltest {

enum class LoginMode { kSystem, kNone, kName };

inline LoginMode gLoginMode = LoginMode::kSystem;
inline std::string gLoginName;

inline void LoginAs(const std::string& name) {
  gLoginName = name;
  gLoginMode = LoginMode::kName;
}
inline void NoLogin() { gLoginMode = LoginMode::kNone; }
inline void SystemLogin() { gLoginMode = LoginMode::kSystem; }

// The next malloc(size) / calloc(count, size) with count * size == bytes
// returns null, once; 0 disarms.
inline std::atomic<size_t> gFailNextMallocOf{0};
inline std::atomic<size_t> gFailNextCallocOf{0};

inline bool TakeFailure(std::atomic<size_t>& armed, size_t bytes) {
  size_t expected = bytes;
  return bytes != 0 && armed.compare_exchange_strong(expected, 0);
}

}  // namespace zeltest

extern "C" char* getlogin(void) {
  switch (zeltest::gLoginMode) {
    case zeltest::LoginMode::kNone:
      return nullptr;
    case zeltest::LoginMode::kName:
      return const_cast<char*>(zeltest::gLoginName.c_str());
    case zeltest::LoginMode::kSystem:
      break;
  }
  using GetLogin = char* (*)(void);
  static const GetLogin system = reinterpret_cast<GetLogin>(dlsym(RTLD_NEXT, "getlogin"));
  return system != nullptr ? system() : nullptr;
}

#if ZEL_TEST_CAN_FAIL_ALLOCATIONS
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);

extern "C" void* malloc(size_t size) noexcept {
  if (zeltest::TakeFailure(zeltest::gFailNextMallocOf, size)) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) noexcept {
  if (zeltest::TakeFailure(zeltest::gFailNextCallocOf, count * size)) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_calloc(count, size);
}
#endif
