# SPDX-License-Identifier: BSD-3-Clause
# Installation: headers, the libraries built, a pkg-config file and a CMake package (both of which
# link shared or static from C), the wire schema and the documents.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tov ${PROJECT_BINARY_DIR}/include/tov
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(targets)
foreach(kind ${TOV_KINDS})
  list(APPEND targets tov_host_${kind} tov_${kind})
endforeach()
install(TARGETS ${targets} EXPORT tovTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(EXPORT tovTargets NAMESPACE tov:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tov)
include(CMakePackageConfigHelpers)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tovConfig.cmake.in ${PROJECT_BINARY_DIR}/tovConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tov)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tovConfigVersion.cmake COMPATIBILITY ${TOV_COMPATIBILITY})
install(FILES ${PROJECT_BINARY_DIR}/tovConfig.cmake ${PROJECT_BINARY_DIR}/tovConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tov)

# The pkg-config file finds its prefix relative to itself, so the tree can be installed anywhere.
file(RELATIVE_PATH TOV_PC_UP "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
set(TOV_PC_LIBS_PRIVATE ${CMAKE_THREAD_LIBS_INIT})
foreach(lib ${TOV_CXX_RUNTIME})
  string(APPEND TOV_PC_LIBS_PRIVATE " -l${lib}")
endforeach()
string(STRIP "${TOV_PC_LIBS_PRIVATE}" TOV_PC_LIBS_PRIVATE)
configure_file(${CMAKE_CURRENT_LIST_DIR}/tov.pc.in ${PROJECT_BINARY_DIR}/tov.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tov.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES ${PROJECT_SOURCE_DIR}/proto/tov.proto DESTINATION ${CMAKE_INSTALL_DATADIR}/tov)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_SOURCE_DIR}/LICENSE
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
