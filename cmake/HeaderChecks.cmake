# Compiles every public header first and alone, the way an application would: as C++17, without extensions and
# with warnings as errors, once as "kernel/trigger.h" and once as "trigger.h".

set(check_sources)
foreach(part IN LISTS OSKERNEL_PARTS)
  foreach(header IN LISTS OSKERNEL_HEADERS_${part})
    get_filename_component(file "${header}" NAME)
    foreach(form IN ITEMS "${part}/${file}" "${file}")
      string(MAKE_C_IDENTIFIER "${form}" id)
      set(check "${CMAKE_CURRENT_BINARY_DIR}/header_checks/${id}.cpp")
      # Twice: the second is what an include guard is for.
      file(CONFIGURE OUTPUT "${check}" CONTENT "#include \"@form@\"\n#include \"@form@\"\n" @ONLY)
      list(APPEND check_sources "${check}")
    endforeach()
  endforeach()
endforeach()

if(check_sources)
  add_library(header_checks OBJECT ${check_sources})
  target_link_libraries(header_checks PRIVATE oskernel)
  target_compile_options(header_checks PRIVATE -Wall -Wextra -Wpedantic -Werror)
  set_target_properties(
    header_checks
    PROPERTIES CXX_STANDARD 17
               CXX_STANDARD_REQUIRED ON
               CXX_EXTENSIONS OFF)
endif()
