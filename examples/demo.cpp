// zel_demo: behaves like one of the client's processes and uses every
// facility of libzel_utils in turn, printing what it does.
#include "demo.h"

#include <cstdio>

int main() {
  std::printf("== zel_demo: a client process using libzel_utils ==\n");
  demo::Process();
  demo::Loops();
  demo::Logging();
  demo::Bus();
  demo::Tracing();
  demo::Config();
  demo::Utilities();
  std::printf("== zel_demo done ==\n");
  return 0;
}
