# The library's sources compiled again into a static library of their own:
# the test-point library of the tests and the instrumented library of the
# fuzzers are such copies; the decoder fuzzer compiles the decoder's again.

# nodetrace_absolute_sources(<variable> <target>): the sources of <target>
# as absolute paths. Sources that other folders add to a target are listed
# with absolute paths already; the target's own are relative to its folder.
function(nodetrace_absolute_sources variable target)
  get_target_property(sources ${target} SOURCES)
  get_target_property(directory ${target} SOURCE_DIR)
  set(absolute "")
  foreach(source IN LISTS sources)
    cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${directory})
    list(APPEND absolute ${source})
  endforeach()
  set(${variable} ${absolute} PARENT_SCOPE)
endfunction()

# nodetrace_add_library_copy(<name>): a static library <name> of the
# library's sources (NODETRACE_LIBRARY_SOURCES, cmake/NodetraceLibrary.cmake), with the include path, the
# platform headers, the threads and the compile definitions of the library's
# own objects. The caller adds its own definitions and options, and must
# have found Threads in its directory (imported targets are seen only in
# the directory that found them).
function(nodetrace_add_library_copy name)
  add_library(${name} STATIC ${NODETRACE_LIBRARY_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC nodeplatform_headers Threads::Threads
                        PRIVATE nodetrace_warnings)
  get_target_property(library_definitions nodetrace_objects COMPILE_DEFINITIONS)
  target_compile_definitions(${name} PRIVATE ${library_definitions})
endfunction()
