# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Read by find_package(Tallyra 1.2 COMPONENTS ...):
#
#   target                  component
#   Tallyra::tallyra        always     what players link
#   Tallyra::platform       Platform   the platform for any Linux machine
#   Tallyra::gst            Gst        the observer for GStreamer players
#   Tallyra::testplatform   TestKit    a platform that tests steer

# tallyra_missing(COMPONENT REASON)
macro(tallyra_missing component reason)
  set(Tallyra_${component}_FOUND FALSE)
  if(Tallyra_FIND_REQUIRED_${component})
    set(Tallyra_FOUND FALSE)
    string(APPEND Tallyra_NOT_FOUND_MESSAGE "The component ${component} is missing: ${reason}. ")
  endif()
endmacro()

set(Tallyra_FOUND TRUE)
set(Tallyra_NOT_FOUND_MESSAGE "")
foreach(tallyra_component IN LISTS Tallyra_FIND_COMPONENTS)
  set(Tallyra_${tallyra_component}_FOUND TRUE)
  set(tallyra_file "${CMAKE_CURRENT_LIST_DIR}/Tallyra${tallyra_component}Targets.cmake")
  if(NOT EXISTS "${tallyra_file}")
    tallyra_missing(${tallyra_component} "there is no ${tallyra_file}")
  elseif(tallyra_component STREQUAL "Gst")
    find_package(PkgConfig QUIET)
    if(PKG_CONFIG_FOUND)
      pkg_check_modules(TALLYRA_GST QUIET IMPORTED_TARGET gstreamer-1.0>=1.18)
    endif()
    if(NOT TARGET PkgConfig::TALLYRA_GST)
      tallyra_missing(Gst "pkg-config does not find gstreamer-1.0 1.18")
    endif()
  endif()
endforeach()

if(Tallyra_FOUND)
  include("${CMAKE_CURRENT_LIST_DIR}/TallyraTargets.cmake")
  foreach(tallyra_component IN LISTS Tallyra_FIND_COMPONENTS)
    if(Tallyra_${tallyra_component}_FOUND)
      include("${CMAKE_CURRENT_LIST_DIR}/Tallyra${tallyra_component}Targets.cmake")
    endif()
  endforeach()
endif()
