#include "utils/zel_env.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

TEST(ZelEnv, NeverSetNameReadsEmpty) { EXPECT_EQ("", zel::ZelEnv::zel_get_env("never-set")); }

TEST(ZelEnv, SetTwiceKeepsTheSecondValue) {
  EXPECT_EQ(0, zel::ZelEnv::zel_set_env("desktopId", "first"));
  EXPECT_EQ(0, zel::ZelEnv::zel_set_env("desktopId", "second"));
  EXPECT_EQ("second", zel::ZelEnv::zel_get_env("desktopId"));
}

TEST(ZelEnv, IsNotTheOperatingSystemEnvironment) {
  ::setenv("ZEL_ENV_TEST_VAR", "os", 1);
  EXPECT_EQ("", zel::ZelEnv::zel_get_env("ZEL_ENV_TEST_VAR"));
  zel::ZelEnv::zel_set_env("ZEL_ENV_TEST_OTHER", "table");
  EXPECT_EQ(nullptr, ::getenv("ZEL_ENV_TEST_OTHER"));
}

TEST(ZelEnv, StoredEmptyValueReadsLikeAMissingOne) {
  zel::ZelEnv::zel_set_env("empty", "");
  EXPECT_EQ("", zel::ZelEnv::zel_get_env("empty"));
}

TEST(ZelEnv, ConcurrentWritersAndReadersSeeWholeValues) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      const std::string mine = "key" + std::to_string(t);
      for (int i = 0; i < 2000; ++i) {
        zel::ZelEnv::zel_set_env(mine, std::to_string(i));
        zel::ZelEnv::zel_set_env("shared", std::string(40, static_cast<char>('a' + t)));
        const std::string shared = zel::ZelEnv::zel_get_env("shared");
        ASSERT_EQ(40u, shared.size());
        ASSERT_EQ(std::string(40, shared[0]), shared);
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int t = 0; t < 4; ++t)
    EXPECT_EQ("1999", zel::ZelEnv::zel_get_env("key" + std::to_string(t)));
}

}  // namespace
