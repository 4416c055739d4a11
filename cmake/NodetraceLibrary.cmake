# The owner of the SRAM file: the node's user on node (ARM) builds; none on
# a host, where that user does not exist and chown would only complain.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|ARM)")
  set(nodetrace_default_sram_owner "kvqsw:kvqsw")
else()
  set(nodetrace_default_sram_owner "")
endif()
set(NODETRACE_SRAM_OWNER "${nodetrace_default_sram_owner}" CACHE STRING
    "Owner (user:group) the SRAM file is handed to with chown after its creation; empty: none")
if(NOT NODETRACE_SRAM_OWNER MATCHES "^([A-Za-z0-9_.-]+(:[A-Za-z0-9_.-]+)?)?$")
  message(FATAL_ERROR "NODETRACE_SRAM_OWNER must be empty, user or user:group, not '${NODETRACE_SRAM_OWNER}'")
endif()

# A build whose node files are under a path prefix gets IPC names of its
# own too: "/shmem_Trace" and "traceMutex" with a suffix made from the
# prefix ("auto"), so that it never shares a trace store with another build
# or with the node's own names. Without a prefix "auto" is empty.
set(NODETRACE_IPC_SUFFIX "auto" CACHE STRING
    "Appended to the names of the shared-memory object and the semaphore; auto: '_' and 8 hex digits made from NODETRACE_PATH_PREFIX, nothing without a prefix")
if(NODETRACE_IPC_SUFFIX STREQUAL "auto")
  if(NODETRACE_PATH_PREFIX STREQUAL "")
    set(nodetrace_ipc_suffix "")
  else()
    string(MD5 nodetrace_prefix_hash "${NODETRACE_PATH_PREFIX}")
    string(SUBSTRING "${nodetrace_prefix_hash}" 0 8 nodetrace_prefix_hash)
    set(nodetrace_ipc_suffix "_${nodetrace_prefix_hash}")
  endif()
elseif(NODETRACE_IPC_SUFFIX MATCHES "^[A-Za-z0-9_.-]*$")
  set(nodetrace_ipc_suffix "${NODETRACE_IPC_SUFFIX}")
else()
  message(FATAL_ERROR "NODETRACE_IPC_SUFFIX may hold letters, digits, '_', '.' and '-' only")
endif()
# The demo removes and names the IPC objects of its build's node.
set(NODETRACE_EFFECTIVE_IPC_SUFFIX "${nodetrace_ipc_suffix}")

# The sources of libnodetrace: this list is the only one. The shipped library
# compiles them once (nodetrace_objects); the test suite compiles the same
# list a second time with its test points (tests/CMakeLists.txt). The folders
# follow the subsystems (docs/layout.md); common/ is what they all use.
set(NODETRACE_LIBRARY_SOURCES
  common/node_names.cpp
  common/syscalls.cpp
  common/test_points.cpp
  common/thread_ids.cpp
  trace/store/creation.cpp
  trace/store/entry_writer.cpp
  trace/store/header_stamps.cpp
  trace/store/layout_helpers.cpp
  trace/store/lock_holder.cpp
  trace/store/printf_format.cpp
  trace/store/registry.cpp
  trace/store/startup.cpp
  trace/store/trace_lock.cpp
  trace/control/enabling.cpp
  trace/control/masks.cpp
  trace/persistent/error_trace.cpp
  trace/persistent/remote_entries.cpp
  trace/persistent/sram_ring.cpp
  trace/reading/entry_format.cpp
  trace/reading/entry_reader.cpp
  trace/reading/entry_search.cpp
  trace/reading/reports.cpp
  trace/dumps/clearing.cpp
  trace/dumps/dump_before_reset.cpp
  trace/dumps/dump_file.cpp
  trace/dumps/dump_records.cpp
  trace/dumps/journal_capture.cpp
  logbridge/feature_tags.cpp
  logbridge/log_file.cpp
  logbridge/log_printf.cpp
  diag/backtrace.cpp)
list(TRANSFORM NODETRACE_LIBRARY_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/)

# Compiled once. The shared library ships them; the benchmarks and fuzz
# replays link the same objects statically (nodetrace_testable).
add_library(nodetrace_objects OBJECT ${NODETRACE_LIBRARY_SOURCES})
target_include_directories(nodetrace_objects PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
target_link_libraries(nodetrace_objects PUBLIC nodeplatform_headers PRIVATE nodetrace_warnings)
target_compile_definitions(nodetrace_objects PRIVATE
  NODETRACE_BUILDING_LIBRARY
  NODETRACE_PATH_PREFIX="${NODETRACE_PATH_PREFIX}"
  NODETRACE_IPC_SUFFIX="${nodetrace_ipc_suffix}"
  NODETRACE_SRAM_OWNER="${NODETRACE_SRAM_OWNER}")
# The library's calls between its own functions are bound inside the shared
# object: an exported function cannot be interposed from the library's own
# point of view, so the compiler may inline and call it directly instead of
# going through the PLT. (The writer calls internal functions anyway.)
target_compile_options(nodetrace_objects PRIVATE -fno-semantic-interposition)
set_target_properties(nodetrace_objects PROPERTIES
  C_VISIBILITY_PRESET hidden
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)

find_package(Threads REQUIRED)

# The write path crosses several of the library's source files (the writer,
# the formatter, the log bridge); optimised as one, the compiler inlines and
# specialises those internal calls. Only the library's own objects are
# optimised together: its exported functions stay what applications call,
# so nothing is specialised for one caller. Debug and sanitizer builds keep
# separate objects, which are quicker to build and to step through.
set(nodetrace_lto OFF)
if(NODETRACE_LTO AND NODETRACE_SANITIZE STREQUAL "" AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  include(CheckIPOSupported)
  check_ipo_supported(RESULT nodetrace_lto OUTPUT nodetrace_lto_output LANGUAGES CXX)
  if(NOT nodetrace_lto)
    message(STATUS "nodetrace: no link-time optimisation with this toolchain")
  endif()
endif()

add_library(nodetrace SHARED $<TARGET_OBJECTS:nodetrace_objects>)
add_library(nodetrace::nodetrace ALIAS nodetrace)
target_include_directories(nodetrace PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(nodetrace PRIVATE Threads::Threads)
if(NODETRACE_BUILD_HOST_PLATFORM)
  # On a host the platform stand-in is installed beside the library.
  target_link_libraries(nodetrace PRIVATE nodeplatform)
  set_target_properties(nodetrace PROPERTIES INSTALL_RPATH "$ORIGIN")
endif()
# Applications get unwind tables too: on 32-bit ARM the compiler emits none by
# default, and a backtrace taken in a crash stops at the first frame without.
target_compile_options(nodetrace INTERFACE -funwind-tables)
set_target_properties(nodetrace PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  EXPORT_NAME nodetrace)

# Static twin of the shipped objects (benchmarks, fuzz replays); the
# platform comes from the test double. The test suite links a twin of its
# own that has the test points (tests/CMakeLists.txt).
add_library(nodetrace_testable STATIC $<TARGET_OBJECTS:nodetrace_objects>)
target_include_directories(nodetrace_testable PUBLIC
  ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR})
target_link_libraries(nodetrace_testable PUBLIC nodeplatform_headers Threads::Threads)
if(nodetrace_lto)
  set_property(TARGET nodetrace_objects nodetrace nodetrace_testable PROPERTY INTERPROCEDURAL_OPTIMIZATION ON)
endif()
