# Warnings are errors everywhere in this project; sanitizer builds add their
# instrumentation to every target, tests included.
add_library(nodetrace_warnings INTERFACE)
target_compile_options(nodetrace_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef -Wcast-qual
  -Wmissing-declarations -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual>)

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
