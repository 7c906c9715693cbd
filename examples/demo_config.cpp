#include <cstdlib>
#include <fstream>
#include <string>

#include "demo.h"
#include "utils/config_parser.h"
#include "utils/key_store.h"

void demo::Config() {
  Section("ConfigParser and application paths");
  const std::string file = WorkDir() + "/redirect.ini";
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
    Say("  %s: enabled=%d max_devices=%d poll_seconds=%.1f", file.c_str(),
        parser.GetBooleanVal("usb", "enabled"), maxDevices, pollSeconds);
    std::string classes;
    for (const std::string& name : parser.GetStringVals("usb", "classes")) classes += " " + name;
    Say("  classes, a list split at \",\":%s", classes.c_str());
  }

  char* settings = GetConfigFilePath();
  Say("  the client's settings file: %s", settings != nullptr ? settings : "(none)");
  std::free(settings);
  const std::string dataPath = GetAppDataPath();
  Say("  log folder (GetAppDataPath): \"%s\"%s", dataPath.c_str(),
      dataPath.empty() ? " (root, and no client process running)" : "");
}
