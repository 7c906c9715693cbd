// Uses the installed headers and library the way a client process does.
#include <cstdio>
#include <cstring>
#include <memory>

#include "utils/looper.h"
#include "utils/process_info.h"
#include "utils/worker.h"
#include "utils/zel_env.h"
#include "utils/zel_version.h"

int main() {
  zel::Looper looper;
  if (looper.Start() != 0) return 1;
  zel::Worker worker(&looper);
  int ran = 0;
  worker.DoSync([&ran] { ran = 1; });
  looper.Stop();
  zel::ZelEnv::zel_set_env("consumer", "yes");
  std::printf("consumer: ran=%d env=%s process=%s version=%s\n", ran,
              zel::ZelEnv::zel_get_env("consumer").c_str(), get_process_name().c_str(),
              zel_utils_version());
  return ran == 1 && zel::ZelEnv::zel_get_env("consumer") == "yes" &&
                 std::strcmp(zel_utils_version(), ZEL_UTILS_VERSION_STRING) == 0
             ? 0
             : 1;
}
