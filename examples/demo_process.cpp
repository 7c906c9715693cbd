#include <cstdio>

#include "demo.h"
#include "utils/process_info.h"
#include "utils/zel_env.h"

void demo::Process() {
  std::printf("-- environment and process information --\n");
  std::printf("  this process: %s in %s\n", get_process_name().c_str(), get_process_dir().c_str());
  std::printf("  uid of the process named %s: %d\n", get_process_name().c_str(),
              getProcessUid(get_process_name()));
  zel::ZelEnv::zel_set_env("desktopId", "desk-0001");
  std::printf("  ZelEnv desktopId=%s\n", zel::ZelEnv::zel_get_env("desktopId").c_str());
}
