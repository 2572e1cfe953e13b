# Each program of the guide prints what the page says. Included by tests/CMakeLists.txt; needs awk and diff.

if(TARGET guide_first)
  get_property(guide_programs GLOBAL PROPERTY OSKERNEL_GUIDE_PROGRAMS)
  get_property(guide_certificate GLOBAL PROPERTY OSKERNEL_GUIDE_CERTIFICATE)
  foreach(program IN LISTS guide_programs)
    set(arguments)
    if(program STREQUAL "tls")
      set(arguments ${guide_certificate})
    endif()
    add_test(NAME guide/${program}
             COMMAND "${PROJECT_SOURCE_DIR}/cmake/check-docs" --run ${program} ${CMAKE_CROSSCOMPILING_EMULATOR}
                     "$<TARGET_FILE:guide_${program}>" ${arguments})
    set_tests_properties(guide/${program} PROPERTIES TIMEOUT 120)
  endforeach()
endif()
add_test(NAME guide/PagesShowTheProgramsAsTheyAre COMMAND "${PROJECT_SOURCE_DIR}/cmake/check-docs")
