// zel_demo: behaves like one of the client's processes and uses every
// facility of libzel_utils in turn, saying what it does.
#include "demo.h"

#include <stdlib.h>

#include <cstdio>

int main() {
  char work_dir[] = "/tmp/zel_demo_XXXXXX";
  if (mkdtemp(work_dir) == nullptr) {
    std::perror("zel_demo: mkdtemp");
    return 1;
  }
  demo::StartOutput(work_dir);
  demo::Say("== zel_demo: a client process using libzel_utils ==");
  demo::Say("  its files and the library's diagnostics go to %s/", work_dir);
  demo::Say("  lines marked [libzel_utils prints] are the library's own status lines");

  demo::Process();
  demo::Loops();
  demo::Logging();
  demo::Bus();
  demo::Tracing();
  demo::Config();
  demo::Utilities();

  const int diagnostics = demo::StopOutput();
  demo::Say("\n== zel_demo done ==");
  demo::Say("  the library's diagnostics: %d lines in %s", diagnostics,
            demo::DiagnosticsFile().c_str());
  demo::Say("  (orvaneLogPrint; the stand-in logging library writes them to standard error)");
  return 0;
}
