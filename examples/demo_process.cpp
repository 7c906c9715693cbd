#include "demo.h"
#include "utils/process_info.h"
#include "utils/zel_env.h"

void demo::Process() {
  Section("environment and process information");
  Say("  this process: %s in %s", get_process_name().c_str(), get_process_dir().c_str());
  Say("  uid of the process named %s: %d", get_process_name().c_str(),
      getProcessUid(get_process_name()));
  zel::ZelEnv::zel_set_env("desktopId", "desk-0001");
  Say("  ZelEnv desktopId=%s (the tracer adds it to every record below)",
      zel::ZelEnv::zel_get_env("desktopId").c_str());
}
