# Installation: the shared library with its versioned names, its public
# headers, a CMake package (mdxlib::mdxlib) and a pkg-config file, and the mdx
# tool when it is built. The static archive is for the tests only and is never
# installed.

include(CMakePackageConfigHelpers)

set(MDX_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/mdxlib")

# The public headers need C++17 in callers as well.
set_property(TARGET mdxlib APPEND PROPERTY INTERFACE_COMPILE_FEATURES cxx_std_17)

install(TARGETS mdxlib
  EXPORT mdxlibTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/mdxlib/"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/mdxlib"
  FILES_MATCHING PATTERN "*.h")

install(EXPORT mdxlibTargets
  NAMESPACE mdxlib::
  FILE mdxlibTargets.cmake
  DESTINATION "${MDX_INSTALL_CMAKEDIR}")

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/mdxlibConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/mdxlibConfig.cmake"
  INSTALL_DESTINATION "${MDX_INSTALL_CMAKEDIR}")
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/mdxlibConfigVersion.cmake"
  VERSION "${PROJECT_VERSION}"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/mdxlibConfig.cmake"
  "${PROJECT_BINARY_DIR}/mdxlibConfigVersion.cmake"
  DESTINATION "${MDX_INSTALL_CMAKEDIR}")

# pkg-config: the paths are relative to the .pc file itself, so the installed
# tree can be moved (cmake --install --prefix DIR works as well).
set(MDX_PC_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH MDX_PC_TO_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" MDX_PC_TO_PREFIX "${MDX_PC_TO_PREFIX}")
set(MDX_PC_PREFIX "\${pcfiledir}/${MDX_PC_TO_PREFIX}")
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(MDX_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(MDX_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file("${PROJECT_SOURCE_DIR}/cmake/mdxlib.pc.in" "${PROJECT_BINARY_DIR}/mdxlib.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/mdxlib.pc" DESTINATION "${MDX_PC_DIR}")

if(TARGET mdx)
  # Finds the library beside it once installed.
  if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set_property(TARGET mdx APPEND PROPERTY INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  endif()
  install(TARGETS mdx RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
endif()
