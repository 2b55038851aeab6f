# find_package(nodelink): the target nodelink::nodelink is the object layer over a platform.

include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)
pkg_check_modules(jsoncpp REQUIRED QUIET IMPORTED_TARGET jsoncpp)
pkg_check_modules(sodium REQUIRED QUIET IMPORTED_TARGET libsodium)
include(${CMAKE_CURRENT_LIST_DIR}/nodelink-targets.cmake)

set(NODELINK_PLATFORM nodelink::hos_linux
  CACHE STRING "CMake target, or libraries, that answer the object layer's platform calls")

if(NOT TARGET nodelink::nodelink)
  add_library(nodelink::nodelink INTERFACE IMPORTED)
  target_link_libraries(nodelink::nodelink INTERFACE nodelink::object_layer ${NODELINK_PLATFORM})
endif()
