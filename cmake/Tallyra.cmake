# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Settings of all targets. None reaches a project that contains this one: all are of this folder and
# those below it, and prefixed, where CMake knows no folders. For pkg-config's modules that matters
# in the other direction, too: pkg_check_modules leaves a target of that name as it is.

include(GNUInstallDirs)
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(TALLYRA_DBUS REQUIRED IMPORTED_TARGET dbus-1>=1.14)
# The default address of the system bus in this libdbus.
pkg_get_variable(TALLYRA_SYSTEM_BUS_ADDRESS dbus-1 system_bus_default_address)
target_compile_definitions(PkgConfig::TALLYRA_DBUS
  INTERFACE TALLYRA_SYSTEM_BUS_ADDRESS="${TALLYRA_SYSTEM_BUS_ADDRESS}")
pkg_check_modules(TALLYRA_GLIB REQUIRED IMPORTED_TARGET glib-2.0>=2.66)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")

if(PROJECT_IS_TOP_LEVEL)
  set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
  if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
  endif()
  find_program(CCACHE_PROGRAM ccache)
  if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_C_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
    set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
  endif()
endif()

# Assertions show paths relative to the project, not those of the machine that built it.
add_compile_options(-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

# A time_t of 32 bits overflows in 2038. From then on reading the clock would fail, and an assertion
# would abort the host.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef)
if(TALLYRA_WERROR)
  add_compile_options(-Werror)
endif()
add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
                    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>)
# With -O3, GCC 12 wrongly warns of overlapping copies inside std::string (GCC bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  add_compile_options($<$<AND:$<CONFIG:Release>,$<COMPILE_LANGUAGE:CXX>>:-Wno-restrict>)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()

if(TALLYRA_SANITIZE)
  add_compile_options(-fsanitize=${TALLYRA_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  # Stack traces show functions and lines, and no types.
  add_compile_options(-gline-tables-only)
  add_link_options(-fsanitize=${TALLYRA_SANITIZE})
endif()
