# Compiler settings shared by every target, and the two ways of adding one.

set(SHD_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined")
option(SHD_HARDEN "Hardening flags of a release build" OFF)
option(SHD_FUZZ "Build the libFuzzer targets (clang only)" OFF)
option(SHD_COVERAGE "Count which lines of the daemon the tests reach (g++ only)" OFF)
option(SHD_ANDROID_LIBS "Android's own log, sockets and clock, as Debian packages them" OFF)

add_library(shd_flags INTERFACE)
target_compile_features(shd_flags INTERFACE cxx_std_20)
target_include_directories(shd_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(shd_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef
  -Wold-style-cast -Wcast-align -Wnon-virtual-dtor -Woverloaded-virtual
  -Wimplicit-fallthrough -Werror
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wmissing-prototypes>
  # g++ 12 warns of overlapping copies inside std::string's operator+ (GCC bug 105651).
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)

if(SHD_SANITIZE)
  add_compile_options(-fsanitize=${SHD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${SHD_SANITIZE})
endif()

if(SHD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(SHD_HARDEN)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  # Position-independent code may be put into a shared library, where any function could be replaced
  # from outside; without the first flag g++ therefore inlines none that a file exports, and the
  # frame decoder takes twice its time.
  add_compile_options(-fno-semantic-interposition -fstack-protector-strong
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  add_link_options(-pie -Wl,-z,relro,-z,now)
endif()

# The daemon's code does without exceptions and run-time type information.
add_library(shd_daemon_flags INTERFACE)
target_link_libraries(shd_daemon_flags INTERFACE shd_flags Threads::Threads)
target_compile_options(shd_daemon_flags INTERFACE -fno-exceptions -fno-rtti)
if(SHD_COVERAGE)
  # Atomic: the daemon's threads count at the same time.
  target_compile_options(shd_daemon_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(shd_daemon_flags INTERFACE --coverage)
endif()
if(SHD_ANDROID_LIBS)
  # Debian's packages have everything but the properties, so their header alone stays ours.
  configure_file(${PROJECT_SOURCE_DIR}/platform/host/include/cutils/properties.h
    ${PROJECT_BINARY_DIR}/properties/cutils/properties.h COPYONLY)
  target_include_directories(shd_daemon_flags INTERFACE ${PROJECT_BINARY_DIR}/properties)
  target_include_directories(shd_daemon_flags SYSTEM INTERFACE /usr/include/android)
else()
  target_include_directories(shd_daemon_flags INTERFACE
    ${PROJECT_SOURCE_DIR}/platform/host/include)
endif()

# shd_library(NAME SOURCE...): one static library of the daemon.
function(shd_library name)
  add_library(${name} STATIC ${ARGN})
  target_link_libraries(${name} PUBLIC shd_daemon_flags)
endfunction()
