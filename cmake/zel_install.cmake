# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts below its prefix: the public headers at their tree paths, both libraries, the CMake package
# and the pkg-config file. The prefix may be moved afterwards: nothing installed names it.
include(CMakePackageConfigHelpers)

set(ZEL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zel)

foreach(header ${ZEL_PUBLIC_HEADERS})
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zel/${folder})
endforeach()

set_target_properties(zel_shared PROPERTIES EXPORT_NAME zel)
set_target_properties(zel_static PROPERTIES EXPORT_NAME static)
install(TARGETS zel_shared zel_static EXPORT zel
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

# Nothing is looked for on behalf of the package, so the list of its targets is the whole of it. The version file also
# keeps a 64-bit program from finding the 32-bit library, and the other way round.
install(EXPORT zel FILE zelConfig.cmake NAMESPACE zel:: DESTINATION ${ZEL_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zelConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zelConfigVersion.cmake DESTINATION ${ZEL_PACKAGE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/zel.pc.in ${PROJECT_BINARY_DIR}/zel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
