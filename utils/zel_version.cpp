#include "utils/zel_version.h"

extern "C" const char* zel_utils_version(void) { return ZEL_UTILS_VERSION_STRING; }
