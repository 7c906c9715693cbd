#include "utils/zel_version.h"

#include <gtest/gtest.h>

#include <string>

TEST(ZelVersion, StringIsMajorDotMinorDotPatch) {
  EXPECT_EQ(std::to_string(ZEL_UTILS_VERSION_MAJOR) + "." +
                std::to_string(ZEL_UTILS_VERSION_MINOR) + "." +
                std::to_string(ZEL_UTILS_VERSION_PATCH),
            ZEL_UTILS_VERSION_STRING);
}

TEST(ZelVersion, LoadedLibraryReportsTheVersionOfTheseHeaders) {
  ASSERT_NE(nullptr, zel_utils_version());
  EXPECT_STREQ(ZEL_UTILS_VERSION_STRING, zel_utils_version());
}
