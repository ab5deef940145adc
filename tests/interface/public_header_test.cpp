// The public header as a C++ client sees it: it stands alone and declares functions with C linkage
// whose callbacks are typed. Compiled as C++11.
#include <qel_audit.h>

extern "C" int check_from_cpp() {
  const qel_execve_callback ignore = [](const qel_execve_info*, void*) { return 0; };
  return qel_execve_unreg_callback(nullptr, ignore, nullptr);
}
