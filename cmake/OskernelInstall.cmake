# What `cmake --install` puts where: the library (component runtime); headers, CMake package and pkg-config file
# (component development). Nothing that is installed names a directory of this machine: everything is found from the
# place where it lies, so that a tree can be staged, moved or copied to another machine's root.

include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/oskernel")
set(pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
set(headers_dir "${CMAKE_INSTALL_INCLUDEDIR}/oskernel")

install(
  TARGETS oskernel
  EXPORT oskernel-targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
          COMPONENT runtime
          NAMELINK_COMPONENT development)
foreach(part IN LISTS OSKERNEL_PARTS)
  install(
    FILES ${OSKERNEL_HEADERS_${part}}
    DESTINATION "${headers_dir}/${part}"
    COMPONENT development)
endforeach()

# ---- The CMake package: find_package(oskernel), target oskernel::oskernel ----

# The short form of a header's name goes through a quote-only path, as in the build tree. (An option that is joined to
# its directory is one argument, whatever blanks that has.)
if(IS_ABSOLUTE "${headers_dir}")
  set(quote_root "${headers_dir}")
else()
  set(quote_root "$<INSTALL_PREFIX>/${headers_dir}")
endif()
foreach(part IN LISTS OSKERNEL_PARTS)
  target_compile_options(oskernel PUBLIC "$<INSTALL_INTERFACE:-iquote${quote_root}/${part}>")
endforeach()

install(
  EXPORT oskernel-targets
  NAMESPACE oskernel::
  DESTINATION "${package_dir}"
  COMPONENT development)
configure_package_config_file(
  cmake/oskernel-config.cmake.in "${PROJECT_BINARY_DIR}/oskernel-config.cmake" INSTALL_DESTINATION "${package_dir}"
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/oskernel-config-version.cmake" COMPATIBILITY SameMajorVersion)
install(
  FILES "${PROJECT_BINARY_DIR}/oskernel-config.cmake" "${PROJECT_BINARY_DIR}/oskernel-config-version.cmake"
  DESTINATION "${package_dir}"
  COMPONENT development)

# ---- The pkg-config file ----

# pkg-config knows where the file lies; from there the way leads up to the prefix.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(pc_prefix "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH up "/${pkgconfig_dir}" "/")
  string(REGEX REPLACE "/$" "" up "${up}")
  set(pc_prefix "\${pcfiledir}/${up}")
endif()
set(pc_libdir "\${pcfiledir}/..")
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(pc_includedir "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(pc_includedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(cmake/oskernel.pc.in "${PROJECT_BINARY_DIR}/oskernel.pc" @ONLY)
install(
  FILES "${PROJECT_BINARY_DIR}/oskernel.pc"
  DESTINATION "${pkgconfig_dir}"
  COMPONENT development)

# ---- The program oskernel-size, where it is built ----

# It needs nothing of the library, so it works from wherever it lies.
if(TARGET oskernel-size)
  foreach(target IN ITEMS oskernel-size oskernel_size_lib)
    if(TARGET ${target})
      oskernel_hide_directories(${target})
    endif()
  endforeach()
  install(
    TARGETS oskernel-size
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}"
            COMPONENT development)
  install(
    FILES packaging/oskernel-size.1
    DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
    COMPONENT development)
endif()
