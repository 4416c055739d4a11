# Installs the build tree into a fresh prefix, builds the consumer example
# against it (CMake package and pkg-config) and runs both programs.
foreach(var BUILD_DIR CONSUMER_DIR WORK_DIR GENERATOR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "Failed (${result}): ${ARGV}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

set(configure_args -S ${CONSUMER_DIR} -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix})
if(TOOLCHAIN)
  # A cross build finds packages and libraries below its root paths only; the
  # install tree is one of them.
  list(APPEND configure_args -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN}
       -DCMAKE_FIND_ROOT_PATH=${prefix})
endif()
file(GLOB_RECURSE pc_files ${prefix}/*/nodetrace.pc)
list(GET pc_files 0 pc_file)
get_filename_component(pc_dir ${pc_file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
set(ENV{PKG_CONFIG_LIBDIR} ${pc_dir})
run(${CMAKE_COMMAND} ${configure_args})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
foreach(program consumer_cmake consumer_pkgconfig)
  run(${EMULATOR} ${WORK_DIR}/build/${program})
endforeach()
