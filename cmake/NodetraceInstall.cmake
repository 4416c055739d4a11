# Installation: the library, its public headers, a CMake package
# (find_package(nodetrace) -> nodetrace::nodetrace) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(NODETRACE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/nodetrace)

set(nodetrace_install_targets nodetrace)
if(NODETRACE_BUILD_HOST_PLATFORM)
  list(APPEND nodetrace_install_targets nodeplatform nodeplatform_headers)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/nodeplatform
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endif()

install(TARGETS ${nodetrace_install_targets}
  EXPORT nodetraceTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/nodetrace
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT nodetraceTargets
  NAMESPACE nodetrace::
  DESTINATION ${NODETRACE_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/nodetraceConfig.cmake.in
  ${PROJECT_BINARY_DIR}/nodetraceConfig.cmake
  INSTALL_DESTINATION ${NODETRACE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/nodetraceConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/nodetraceConfig.cmake
              ${PROJECT_BINARY_DIR}/nodetraceConfigVersion.cmake
        DESTINATION ${NODETRACE_CMAKE_DIR})

if(NODETRACE_BUILD_HOST_PLATFORM)
  set(NODETRACE_PC_PLATFORM_LIBS "-lnodeplatform")
else()
  set(NODETRACE_PC_PLATFORM_LIBS "")
endif()
# The pkg-config file finds its prefix from where it lies, so that an
# installed tree can be moved (into a node image, say).
file(RELATIVE_PATH NODETRACE_PC_TO_PREFIX
     /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/nodetrace.pc.in
               ${PROJECT_BINARY_DIR}/nodetrace.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/nodetrace.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The command-line tool and its manual page.
if(TARGET nodetrace_cli)
  install(TARGETS nodetrace_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/tool/nodetrace.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
