# Compiler and linker settings that every target of this project shares: link qel_options privately.
add_library(qel_options INTERFACE)
target_compile_options(qel_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Wcast-qual>
  -Werror -Werror=format
  -fstack-protector-strong)
target_link_options(qel_options INTERFACE -Wl,-z,relro -Wl,-z,now)

if(QEL_SANITIZE)
  target_compile_options(qel_options INTERFACE
    -fsanitize=${QEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(qel_options INTERFACE -fsanitize=${QEL_SANITIZE})
else()
  target_compile_definitions(qel_options INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()
