# SPDX-License-Identifier: BSD-3-Clause
# The release number, in the header (tov/version.h), the soname, the symbol version node and the
# CMake package. Until 1.0 every minor release may change the ABI, so the soname and the package's
# compatibility follow major.minor; from 1.0 on, the major version alone.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(TOV_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  set(TOV_COMPATIBILITY SameMinorVersion)
else()
  set(TOV_SOVERSION ${PROJECT_VERSION_MAJOR})
  set(TOV_COMPATIBILITY SameMajorVersion)
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/version.h.in ${PROJECT_BINARY_DIR}/include/tov/version.h @ONLY)
