# Debian packages for i386, one per install component, built with CPack from
# a build tree configured with the prefix /usr (scripts/package.sh):
#
#   libvrkutil1              Runtime: the library, the two stand-ins and the
#                            Win32 layer
#   libvrkutil-dev           Development: headers, vrkutil.pc, CMake package
#   libvrkutil-standin-dev   StandinDevelopment: the stand-ins' test controls
#   vrkutil                  Tool: the command-line tool, its manual page, docs
#
# The binaries need the C library alone (no C++ runtime: the tool links it
# statically), so every package depends on the i386 libc6 with the lowest
# version whose symbols they use; tests/install/check_debs.sh verifies that
# against the binaries.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vrkutil)
set(CPACK_PACKAGE_VENDOR "libVrkutil developers")
set(CPACK_PACKAGE_CONTACT "libVrkutil developers <maintainers@users.noreply.c-seed-44fd92ae.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "utility library of an anti-malware scanning product (i386)")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime Development StandinDevelopment Tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps would read the amd64 machine's lib32 packages, which are not
# what an i386 package depends on; the dependencies are stated here instead.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)

set(vrk_exact "(= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvrkutil1)
# libVrkwin32.so carries the C++ library inside it, which uses symbols of
# glibc 2.36 (arc4random), as the tool does.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.36)")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "utility library of an anti-malware scanning product (i386)\nlibVrkutil.so with the stand-ins of its sibling libraries libVrkalloc.so\nand libVrkvfile.so: checksums, signature search, PE images, URIs, text\nencodings and OS helpers for 32-bit x86 scanners; libVrkwin32.so, the\nWin32 layer that runs Windows DLLs through the PE loader.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvrkutil-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libvrkutil1 ${vrk_exact}")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "development files of libVrkutil (i386)\nC headers, the pkg-config file vrkutil.pc and the CMake package Vrkutil.\nConsumers build for i386 (-m32).")

set(CPACK_DEBIAN_STANDINDEVELOPMENT_PACKAGE_NAME libvrkutil-standin-dev)
set(CPACK_DEBIAN_STANDINDEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_STANDINDEVELOPMENT_PACKAGE_DEPENDS "libvrkutil-dev ${vrk_exact}")
set(CPACK_COMPONENT_STANDINDEVELOPMENT_DESCRIPTION
  "test controls of libVrkutil's stand-in sibling libraries (i386)\nThe header vrk_standin_ctl.h: fault injection, allocation logs and file\nopening for tests against the stand-ins; not part of the product contract.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME vrkutil)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libvrkutil1 ${vrk_exact}, libc6 (>= 2.36)")
set(CPACK_COMPONENT_TOOL_DESCRIPTION
  "command-line access to libVrkutil (i386)\nvrkutil: checksums, signature scanning, PE images, URIs, text conversion\nand OS helpers from the command line.")

include(CPack)
