# Every target of the project gets the same warnings. They are errors only
# with NODETRACE_WERROR=ON (CI builds that way), so that a newer compiler with
# a new warning does not stop a user's build. Sanitizer builds add their
# instrumentation to every target, tests included.
add_library(nodetrace_warnings INTERFACE)
target_compile_options(nodetrace_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef -Wcast-qual
  -Wmissing-declarations
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual>)
if(NODETRACE_WERROR)
  target_compile_options(nodetrace_warnings INTERFACE -Werror)
endif()

# GCC 12 at -O3 inlines the standard library's `"text" + std::string` into a
# memcpy it then takes for an overlapping one and warns (-Wrestrict) on code
# that has no overlap. The warning stays visible there but does not fail the
# build; every other compiler and version keeps it an error (with
# NODETRACE_WERROR).
if(NODETRACE_WERROR AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
   AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(nodetrace_warnings INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-error=restrict>)
endif()

# Unwind tables everywhere, so that a backtrace taken on the node (32-bit ARM
# does not emit them by default) walks through every frame.
add_compile_options(-funwind-tables -fasynchronous-unwind-tables)

if(NODETRACE_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(NODETRACE_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT NODETRACE_SANITIZE STREQUAL "")
  message(FATAL_ERROR "NODETRACE_SANITIZE must be empty, 'address' or 'thread'")
endif()
