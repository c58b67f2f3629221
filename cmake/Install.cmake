# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# What is installed, and how other projects find it: by CMake with find_package(Tallyra), by others
# with pkg-config. No installed file names a folder of this machine, so the whole can be moved.

include(CMakePackageConfigHelpers)

set(tallyra_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/Tallyra")

# tallyra_install(ARGUMENT...): install(), unless TALLYRA_INSTALL is off
function(tallyra_install)
  if(TALLYRA_INSTALL)
    install(${ARGN})
  endif()
endfunction()

# tallyra_install_library(TARGET AS NAME [COMPONENT COMPONENT]): other projects link Tallyra::NAME,
# whether they contain this project or find it. Each component has a file of its own, so that
# packages can be split: find_package finds those components whose files are there.
function(tallyra_install_library target)
  cmake_parse_arguments(PARSE_ARGV 1 library "" "AS;COMPONENT" "")
  set(targets Tallyra${library_COMPONENT}Targets)
  add_library(Tallyra::${library_AS} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${library_AS})
  tallyra_install(TARGETS ${target} EXPORT ${targets}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  tallyra_install(EXPORT ${targets} NAMESPACE Tallyra:: DESTINATION ${tallyra_cmake_dir})
endfunction()

# Files of pkg-config name folders relative to themselves. Under /usr they name /usr itself, which
# pkg-config leaves out of the flags: no compiler knows /usr/lib/pkgconfig/../../include as its own.
# Elsewhere linkers and loaders do not search, so libraries and programs say where the others are.
set(tallyra_pc_prefix "/usr")
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  file(RELATIVE_PATH tallyra_pc_prefix
    "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
  string(REGEX REPLACE "/$" "" tallyra_pc_prefix "\${pcfiledir}/${tallyra_pc_prefix}")
  if(NOT DEFINED CMAKE_INSTALL_RPATH)
    file(RELATIVE_PATH libdir "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
    set(CMAKE_INSTALL_RPATH "$ORIGIN" "$ORIGIN/.." "$ORIGIN/${libdir}")
  endif()
endif()
file(RELATIVE_PATH tallyra_pc_libdir "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_FULL_LIBDIR}")
file(RELATIVE_PATH tallyra_pc_includedir
  "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_FULL_INCLUDEDIR}")

# tallyra_install_pkg_config(NAME): from NAME.pc.in
function(tallyra_install_pkg_config name)
  configure_file(${name}.pc.in ${name}.pc @ONLY)
  tallyra_install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

write_basic_package_version_file(TallyraConfigVersion.cmake COMPATIBILITY SameMajorVersion)
tallyra_install(
  FILES cmake/TallyraConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/TallyraConfigVersion.cmake
  DESTINATION ${tallyra_cmake_dir})
