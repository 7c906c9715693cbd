// The one export macro of libzel_utils: the library is built with hidden
// symbols, and everything a client may call carries ZEL_API.
#pragma once

#if defined(_WIN32)
#define ZEL_API __declspec(dllexport)
#else
#define ZEL_API __attribute__((visibility("default")))
#endif
