# The dump file decoder (tool/decode) serves the tool, its own tests and its
# fuzz target. Its directory may be added once only: the tool adds it below
# its own binary directory when it is built; otherwise the first of the tests
# and the fuzzers that asks adds it here, and later calls find it settled,
# with its targets or (packages missing) without them.
function(nodetrace_add_decoder)
  get_property(added GLOBAL PROPERTY NODETRACE_DECODER_ADDED)
  if(added OR NOT EXISTS ${PROJECT_SOURCE_DIR}/tool/decode/CMakeLists.txt)
    return()
  endif()
  set_property(GLOBAL PROPERTY NODETRACE_DECODER_ADDED TRUE)
  add_subdirectory(${PROJECT_SOURCE_DIR}/tool/decode ${CMAKE_BINARY_DIR}/tool-decode)
endfunction()
