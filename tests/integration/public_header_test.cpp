// The public header as a C++ client sees it: it stands alone, may be included twice, and declares
// functions with C linkage. Compiled as C++11.
#include <qel_audit.h>

#include <type_traits>

static_assert(std::is_standard_layout<qel_login_info>::value &&
                  std::is_trivially_copyable<execve_event>::value,
              "events are plain data");
static_assert(
    std::is_same<decltype(&qel_bind_reg_callback), int (*)(int, qel_bind_callback, void*)>::value,
    "callbacks are typed");

extern "C" int check_from_cpp() {
  const qel_execve_callback ignore = [](const qel_execve_info*, void*) { return 0; };
  return qel_execve_unreg_callback(nullptr, ignore, nullptr);
}
