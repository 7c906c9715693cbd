#include "id_commands.h"

#include <cstdio>
#include <memory>
#include <string>

#include "cli_support.h"
#include "utils/zel_tracer.h"
#include "utils/zel_version.h"

namespace zelctl {
namespace {

void PrintId(const char* name, const std::string& id, bool json) {
  if (json) {
    Json::Value value(Json::objectValue);
    value[name] = id;
    PrintJson(value);
  } else {
    std::printf("%s\n", id.c_str());
  }
}

}  // namespace

int RunTraceId(bool json) {
  std::string id;
  {
    QuietStdStreams quiet;  // the tracer announces itself on standard output
    id = zel::ZelTracer::GetInstance()->GetTraceId();
  }
  PrintId("trace_id", id, json);
  return kExitOk;
}

int RunSessionId(bool json) {
  std::string id;
  {
    QuietStdStreams quiet;
    id = zel::ZelTracer::GetInstance()->NewSessionId();
  }
  PrintId("session_id", id, json);
  return kExitOk;
}

int RunVersion(bool json) {
  const std::string library = zel_utils_version();
  if (json) {
    Json::Value value(Json::objectValue);
    value["zelctl"] = ZEL_UTILS_VERSION_STRING;
    value["library"] = library;
    PrintJson(value);
  } else {
    std::printf("zelctl %s (libzel_utils %s)\n", ZEL_UTILS_VERSION_STRING, library.c_str());
  }
  return kExitOk;
}

}  // namespace zelctl
