# Installation in the GNU layout, for `cmake --install build --prefix P`:
#
#   component Runtime             lib/libVrkutil.so.1.4.3.9, .so.1 and .so (the
#                                 product opens the plain name), the stand-ins,
#                                 the Win32 layer libVrkwin32.so
#   component Development         include/vrkutil/*.h, lib/pkgconfig/vrkutil.pc,
#                                 lib/cmake/Vrkutil/ (find_package)
#   component StandinDevelopment  include/vrkutil/vrk_standin_ctl.h, the test
#                                 controls of the stand-ins
#   component Tool                bin/vrkutil, its manual page, its bash
#                                 completion, the docs
#
# With the prefix /usr, libraries go to the i386 multiarch folder
# (lib/i386-linux-gnu), as Debian's own i386 libraries do. Everything is
# i386: the pkg-config file and the CMake package make a consumer build with
# -m32 and refuse a 64-bit one.
if(NOT CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VRK_INCLUDE_SUBDIR ${CMAKE_INSTALL_INCLUDEDIR}/vrkutil)
set(VRK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Vrkutil)
# The docs go with the tool, under the tool package's name.
set(VRK_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/vrkutil)

# Runtime: the library with its version links, and the stand-ins under the
# names the product's own libraries have. The library finds its siblings
# beside itself, wherever the prefix is (a program's own RUNPATH does not
# reach the libraries of its libraries).
set_target_properties(Vrkutil PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS Vrkutil Vrkalloc Vrkvfile Vrkwin32
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Runtime)

# Development: the public headers, and the interfaces of the two sibling
# libraries that the headers' handles and blocks come from.
file(GLOB vrk_public_headers ${PROJECT_SOURCE_DIR}/include/*.h)
install(FILES ${vrk_public_headers}
              ${PROJECT_SOURCE_DIR}/win32/include/vrk_win32.h
              ${PROJECT_SOURCE_DIR}/platform/include/vrkalloc.h
              ${PROJECT_SOURCE_DIR}/platform/include/vrkvfile.h
  DESTINATION ${VRK_INCLUDE_SUBDIR} COMPONENT Development)
install(FILES ${PROJECT_SOURCE_DIR}/platform/include/vrk_standin_ctl.h
  DESTINATION ${VRK_INCLUDE_SUBDIR} COMPONENT StandinDevelopment)

# pkg-config: paths relative to the file's own place, so a prefix chosen at
# install time works.
file(RELATIVE_PATH vrk_pc_to_prefix
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/vrkutil.pc.in ${CMAKE_BINARY_DIR}/vrkutil.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/vrkutil.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# CMake package: find_package(Vrkutil 1.4) gives Vrkutil::Vrkutil. The
# version file refuses a consumer whose pointers are not 4 bytes wide.
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/VrkutilConfig.cmake.in
  ${CMAKE_BINARY_DIR}/VrkutilConfig.cmake
  INSTALL_DESTINATION ${VRK_CMAKE_DIR}
  PATH_VARS VRK_INCLUDE_SUBDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/VrkutilConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/VrkutilConfig.cmake ${CMAKE_BINARY_DIR}/VrkutilConfigVersion.cmake
  DESTINATION ${VRK_CMAKE_DIR} COMPONENT Development)

# Tool: vrkutil finds the libraries of its own prefix.
set_target_properties(vrkutil PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
install(TARGETS vrkutil RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tool)
install(FILES ${VRK_MANPAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Tool)
install(FILES ${VRK_BASH_COMPLETION} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions
  COMPONENT Tool)
file(GLOB vrk_docs ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${vrk_docs}
  DESTINATION ${VRK_DOC_DIR} COMPONENT Tool)

include(${PROJECT_SOURCE_DIR}/cmake/VrkPackage.cmake)
