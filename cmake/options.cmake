# Compiler and linker settings that all targets of this project share: link qel_options privately.
add_library(qel_options INTERFACE)
target_compile_options(qel_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Wcast-qual>
  -fstack-protector-strong)
target_link_options(qel_options INTERFACE -Wl,-z,relro -Wl,-z,now)

if(QEL_SANITIZE)
  target_compile_options(qel_options INTERFACE
    -fsanitize=${QEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(qel_options INTERFACE -fsanitize=${QEL_SANITIZE})
else()
  # Does not override a level that the compiler or the person building has chosen. Sanitizers detect
  # less with fortification.
  include(CheckCXXSourceCompiles)
  check_cxx_source_compiles("
    #if defined(_FORTIFY_SOURCE) || defined(__SANITIZE_ADDRESS__)
    #error chosen already
    #endif
    #ifdef __has_feature
    #if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
    #error no fortification
    #endif
    #endif
    int main() { return 0; }" QEL_CHOOSES_FORTIFY_SOURCE)
  if(QEL_CHOOSES_FORTIFY_SOURCE)
    target_compile_definitions(qel_options INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
  endif()
endif()
