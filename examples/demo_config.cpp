#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "demo.h"
#include "utils/config_parser.h"
#include "utils/key_store.h"

void demo::Config() {
  std::printf("-- ConfigParser and application paths --\n");
  char pattern[] = "/tmp/zel_demo_config_XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    std::perror("mkdtemp");
    return;
  }
  const std::string file = std::string(pattern) + "/redirect.ini";
  std::ofstream(file) << "[usb]\n"
                         "enabled=true\n"
                         "max_devices=8\n"
                         "poll_seconds=1.5\n"
                         "classes=disk,camera,printer\n";

  zel::ConfigParser parser;
  if (parser.Init(file, ",") == 0) {
    int maxDevices = 0;
    double pollSeconds = 0.0;
    parser.GetIntegerVal("usb", "max_devices", &maxDevices);
    parser.GetDoubleVal("usb", "poll_seconds", &pollSeconds);
    std::printf("  %s: enabled=%d max_devices=%d poll_seconds=%.1f\n", file.c_str(),
                parser.GetBooleanVal("usb", "enabled"), maxDevices, pollSeconds);
    std::printf("  classes:");
    for (const std::string& name : parser.GetStringVals("usb", "classes")) {
      std::printf(" %s", name.c_str());
    }
    std::printf("\n");
  }
  std::filesystem::remove_all(pattern);

  char* settings = GetConfigFilePath();
  std::printf("  settings file: %s\n", settings != nullptr ? settings : "(none)");
  std::free(settings);
  const std::string dataPath = GetAppDataPath();
  std::printf("  log folder (GetAppDataPath): \"%s\"%s\n", dataPath.c_str(),
              dataPath.empty() ? " (root, and no client process running)" : "");
}
