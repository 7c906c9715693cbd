#include "utils/looper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/diag_capture.h"

namespace {

TEST(Looper, StartTwiceReturnsMinusOne) {
  zel::Looper looper;
  EXPECT_EQ(0, looper.Start());
  EXPECT_EQ(-1, looper.Start());
  EXPECT_EQ(0, looper.Stop());
}

}  // namespace
