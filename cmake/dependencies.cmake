# SPDX-License-Identifier: BSD-3-Clause
# What building the library needs, found at configure time; a missing piece names its Debian package.

# tov_missing(WHAT PACKAGE [ALTERNATIVE]) stops the configuration.
function(tov_missing what package)
  set(alternative "")
  if(ARGC GREATER 2)
    set(alternative ", ${ARGV2}")
  endif()
  message(FATAL_ERROR "tov: ${what} not found: install the Debian package ${package}${alternative} "
                      "(scripts/install-deps.sh installs everything the build and the tests need)")
endfunction()

find_package(PkgConfig QUIET)
if(NOT PKG_CONFIG_FOUND)
  tov_missing(pkg-config pkg-config)
endif()
# libsafec supplies the bounded string and memory functions (strnlen_s, memcpy_s, ...).
pkg_check_modules(SAFEC QUIET IMPORTED_TARGET libsafec)
if(NOT SAFEC_FOUND)
  tov_missing("libsafec (the Safe C Library)" libsafec-dev)
endif()
# Boost.Intrusive's tree algorithms behind the host's balanced tree; headers only.
find_path(TOV_BOOST_INCLUDE_DIR boost/intrusive/avltree_algorithms.hpp)
if(NOT TOV_BOOST_INCLUDE_DIR)
  tov_missing(Boost.Intrusive libboost-dev)
endif()
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
