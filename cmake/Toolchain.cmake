# Compiler flags of every target: warnings, hardening, sanitizers. Included once, by the top folder.

option(NODELINK_WERROR "Treat compiler warnings as errors" ON)
option(NODELINK_SANITIZE "Build with address, leak and undefined-behaviour sanitizers" OFF)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
# Small rather than fast: a run's time goes into the libraries and the kernel, its memory into pages.
set(CMAKE_CXX_FLAGS_RELEASE "-Os -DNDEBUG -ffunction-sections -fdata-sections")
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)
# g++ 12 takes `"text" + std::string` for an overlapping copy once it is inlined (GCC bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  add_compile_options(-Wno-restrict)
endif()
if(NODELINK_WERROR)
  add_compile_options(-Werror)
endif()

# Log lines name their source file; the build machine's folders have no business in the program.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

add_compile_options(-fstack-protector-strong -fstack-clash-protection -D_GLIBCXX_ASSERTIONS
  -Wformat -Werror=format-security)
# Indirect jumps and returns only lead where the compiler meant them to.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|amd64|i[3-6]86")
  add_compile_options(-fcf-protection)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
  add_compile_options(-mbranch-protection=standard)
endif()
add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack -Wl,--as-needed)
if(NODELINK_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
  # A package's build brings a level of its own.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  add_link_options(-Wl,--gc-sections)
endif()
