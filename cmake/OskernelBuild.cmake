# Settings that every target shares: build type, warnings, sanitizers.

get_property(multi_config GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
if(NOT CMAKE_BUILD_TYPE AND NOT multi_config)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Debug, RelWithDebInfo, Release or MinSizeRel" FORCE)
endif()

set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

option(OSKERNEL_WERROR "Treat warnings in this project as errors" ${PROJECT_IS_TOP_LEVEL})
option(OSKERNEL_ASSERTS "Keep assert() in RelWithDebInfo builds; Release never has it, Debug always" ON)
set(OSKERNEL_SANITIZE "" CACHE STRING "Sanitizers of the whole build: address,undefined or thread")

set(OSKERNEL_WARNINGS -Wall -Wextra -Wpedantic -Wshadow)
if(OSKERNEL_WERROR)
  list(APPEND OSKERNEL_WARNINGS -Werror)
endif()

if(OSKERNEL_ASSERTS)
  add_compile_options($<$<CONFIG:RelWithDebInfo>:-UNDEBUG>)
endif()

# What is shipped does not pay for it; see kernel/posixkernel_order.cpp.
if(OSKERNEL_SANITIZE)
  add_compile_definitions(OSKERNEL_CHECK_LOCK_ORDER)
else()
  add_compile_definitions($<$<CONFIG:Debug>:OSKERNEL_CHECK_LOCK_ORDER>)
endif()

if(OSKERNEL_SANITIZE)
  if(NOT OSKERNEL_SANITIZE MATCHES "^(address|undefined|address,undefined|thread)$")
    message(FATAL_ERROR "OSKERNEL_SANITIZE is '${OSKERNEL_SANITIZE}': "
                        "say address,undefined or address or undefined or thread")
  endif()
  # -O2 doubles the time it takes to compile instrumented code and finds nothing more.
  add_compile_options(-fsanitize=${OSKERNEL_SANITIZE} -fno-omit-frame-pointer -O1 -g1)
  add_link_options(-fsanitize=${OSKERNEL_SANITIZE})
  if(OSKERNEL_SANITIZE MATCHES "undefined")
    # Without this a finding is one line in the log of a test that passes.
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
else()
  # A shared library normally links with symbols missing and fails at the first program that uses it. (The
  # sanitizers' own symbols come with the program, so their builds cannot ask for this.)
  set(OSKERNEL_LINK_CHECK -Wl,-z,defs)
endif()

# Two builds of one source give the same bytes, wherever source and build directory lie: names of source files in what
# is compiled begin at the top of the source, as in ./kernel/buffer.cpp. Debuggers and sanitizers started there find
# them. Debug builds, which nobody compares, keep the whole path. Where one directory lies in the other, the option
# that stands last has the word.
function(oskernel_hide_directories target)
  target_compile_options(
    ${target} PRIVATE "$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>"
                      "$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${CMAKE_BINARY_DIR}=./build>")
endfunction()
