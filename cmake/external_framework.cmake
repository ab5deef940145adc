# An agent's own framework in place of the bundled stand-in. Set CMAKE_PREFIX_PATH to its location.
# Its headers must offer the declarations of framework/include.
find_library(QELBASE_LIBRARY qelbase REQUIRED)
find_library(QELFRAME_LIBRARY qelframe REQUIRED)
find_library(QELXTEST_LIBRARY qelxtest REQUIRED)

add_library(qelbase INTERFACE)
target_include_directories(qelbase INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/framework/include>)
target_link_libraries(qelbase INTERFACE ${QELBASE_LIBRARY} ${QELXTEST_LIBRARY})
add_library(qelframe INTERFACE)
target_link_libraries(qelframe INTERFACE qelbase ${QELFRAME_LIBRARY})
foreach(library IN ITEMS qelbase qelframe)
  add_library(qelaudit::${library} ALIAS ${library})
endforeach()
if(QEL_INSTALL)
  install(TARGETS qelbase qelframe EXPORT qelaudit-targets)
endif()
