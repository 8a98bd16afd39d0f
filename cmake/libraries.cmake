# SPDX-License-Identifier: BSD-3-Clause
# The objects packaged as libraries. Each kind asked for (shared, static or both) is two libraries:
# libtov, and libtov-host with the platform services, which libtov links on a Linux host and which
# the platform's own libraries replace on the real target. A third, internal archive holds
# everything, the host's test hooks included, for the tests, tools and benchmarks.

set(TOV_KINDS)
if(BUILD_SHARED_LIBS OR TOV_BUILD_BOTH_LIBS)
  list(APPEND TOV_KINDS shared)
endif()
if(NOT BUILD_SHARED_LIBS OR TOV_BUILD_BOTH_LIBS)
  list(APPEND TOV_KINDS static)
endif()
if(BUILD_SHARED_LIBS)
  set(TOV_PRIMARY_KIND shared)
else()
  set(TOV_PRIMARY_KIND static)
endif()

# A C program that links the static archives needs the C++ runtime: what the C++ compiler links
# beyond what the C compiler does (libstdc++ and libm with gcc and clang).
set(TOV_CXX_RUNTIME ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
list(REMOVE_ITEM TOV_CXX_RUNTIME ${CMAKE_C_IMPLICIT_LINK_LIBRARIES})

set(TOV_MAP ${CMAKE_CURRENT_LIST_DIR}/tov.map)
set(TOV_HOST_MAP ${CMAKE_CURRENT_LIST_DIR}/tov-host.map)

function(tov_library target kind objects output)
  string(TOUPPER ${kind} type)
  add_library(${target} ${type} $<TARGET_OBJECTS:${objects}>)
  add_library(tov::${target} ALIAS ${target})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${output} LINKER_LANGUAGE CXX)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                              $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
                                              $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  if(kind STREQUAL "shared")
    set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${TOV_SOVERSION})
    target_link_libraries(${target} PRIVATE PkgConfig::SAFEC Threads::Threads)
    if(NOT TOV_SANITIZE)
      target_link_options(${target} PRIVATE LINKER:-z,defs) # sanitizer runtimes resolve at load time
    endif()
  else()
    target_link_libraries(${target} INTERFACE $<BUILD_INTERFACE:PkgConfig::SAFEC> $<INSTALL_INTERFACE:safec>
                                              Threads::Threads ${TOV_CXX_RUNTIME})
  endif()
endfunction()

# Pins the exported names and their symbol version. Local names, the C++ runtime's inline statics
# among them, never reach the dynamic symbol table, so nothing marks the library as unloadable.
function(tov_version_script target map)
  target_link_options(${target} PRIVATE LINKER:--version-script=${map})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
endfunction()

foreach(kind ${TOV_KINDS})
  tov_library(tov_host_${kind} ${kind} tov_host_objects tov-host)
  tov_library(tov_${kind} ${kind} tov_objects tov)
  target_link_libraries(tov_${kind} PUBLIC tov_host_${kind})
endforeach()
if(TARGET tov_shared)
  tov_version_script(tov_host_shared ${TOV_HOST_MAP})
  tov_version_script(tov_shared ${TOV_MAP})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # gcc marks some inline statics of the C++ runtime as unique symbols, and a library that
    # defines one can never be unloaded; plain weak symbols are enough within one library.
    target_compile_options(tov_objects PRIVATE -fno-gnu-unique)
    target_compile_options(tov_host_objects PRIVATE -fno-gnu-unique)
  endif()
endif()
add_library(tov::tov ALIAS tov_${TOV_PRIMARY_KIND})

add_library(tov_internal STATIC)
target_link_libraries(tov_internal PUBLIC tov_objects tov_host_objects)
