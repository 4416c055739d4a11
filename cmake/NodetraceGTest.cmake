# GoogleTest for the test suite: provides GTest::gtest and GTest::gtest_main,
# or neither when GoogleTest is missing (the caller then skips the tests).
#
# Host builds use the packaged library (libgtest-dev). The packaged library
# exists for the build machine only, so cross builds compile GoogleTest from
# the sources that Debian ships in /usr/src/googletest (package googletest),
# with the cross compiler and the same flags as the rest of the build.
# Nothing is downloaded.
if(TARGET GTest::gtest AND TARGET GTest::gtest_main)
  return()
endif()

if(NOT CMAKE_CROSSCOMPILING)
  find_package(GTest QUIET)
  return()
endif()

set(NODETRACE_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH
    "GoogleTest sources, compiled for the target in cross builds")
if(NOT EXISTS ${NODETRACE_GTEST_SOURCE_DIR}/CMakeLists.txt)
  message(STATUS
    "Cross build: no GoogleTest sources in ${NODETRACE_GTEST_SOURCE_DIR} "
    "(install the googletest package or set NODETRACE_GTEST_SOURCE_DIR)")
  return()
endif()

block()
  # The tests use GoogleTest only; nothing of it is installed with the library.
  set(BUILD_GMOCK OFF)
  set(INSTALL_GTEST OFF)
  set(BUILD_SHARED_LIBS OFF)
  set(gtest_build_tests OFF)
  set(gtest_build_samples OFF)
  # SYSTEM: the GoogleTest headers are included like system headers, so the
  # project's warnings (errors here) do not apply to them; GoogleTest's own
  # sources never see them either, they live on the nodetrace_warnings target.
  add_subdirectory(${NODETRACE_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest
                   EXCLUDE_FROM_ALL SYSTEM)
endblock()

# GoogleTest's CMake defines these aliases itself; older releases did not.
foreach(gtest_target IN ITEMS gtest gtest_main)
  if(NOT TARGET GTest::${gtest_target})
    add_library(GTest::${gtest_target} ALIAS ${gtest_target})
  endif()
endforeach()
