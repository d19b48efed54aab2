# vrk_family(NAME [SOURCES ...] [DEPENDS family...] [EXPORTS file])
#
# Declares one family of the library as a target `vrk_<NAME>`: an OBJECT
# library, or an INTERFACE library when it has no sources (frame/, the ground
# floor, is headers only). A family sees the public headers, the platform
# contract, its own folder and the families it names in DEPENDS, nothing
# else: each family has an include root of its own that holds only a link to
# its folder, so `#include "pe/loader.h"` inside uri/ does not compile. The
# includes are also checked at configure time, which names the offending line.
# EXPORTS names a text file listing the family's exported C functions, one per
# line; they are collected into the linker version script.

# Compile flags of code that ends up inside libVrkutil.so: nothing may need
# the C++ runtime library at run time, and nothing is visible unless marked.
set(VRK_LIBRARY_CXX_FLAGS
  ${VRK_STRICT_FLAGS} -fvisibility=hidden -fvisibility-inlines-hidden
  -fno-exceptions -fno-rtti -fno-threadsafe-statics
  $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)

# The folder whose include path exposes only `<name>/`.
function(vrk_include_root name out)
  set(root ${CMAKE_BINARY_DIR}/include-roots/${name})
  if(NOT IS_SYMLINK ${root}/${name})
    file(MAKE_DIRECTORY ${root})
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${root}/${name} SYMBOLIC)
  endif()
  set(${out} ${root} PARENT_SCOPE)
endfunction()

# Fails the configuration when a file of family `name` includes a header of a
# family that is neither itself nor one of `allowed`.
function(vrk_check_family_includes name allowed)
  file(GLOB files ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h
       ${CMAKE_CURRENT_SOURCE_DIR}/*.inc)
  get_property(all GLOBAL PROPERTY VRK_ALL_FAMILIES)
  foreach(f ${files})
    file(STRINGS ${f} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"[a-z0-9_]+/")
    foreach(line ${lines})
      string(REGEX MATCH "\"([a-z0-9_]+)/" _ "${line}")
      set(target ${CMAKE_MATCH_1})
      if(target IN_LIST all AND NOT target STREQUAL name AND NOT target IN_LIST allowed)
        file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${f})
        message(FATAL_ERROR "${rel}: includes a header of '${target}', which family '${name}' "
                            "does not depend on (${line}); add it to DEPENDS or move the code")
      endif()
    endforeach()
  endforeach()
endfunction()

function(vrk_family name)
  cmake_parse_arguments(F "" "EXPORTS" "SOURCES;DEPENDS" ${ARGN})
  vrk_include_root(${name} root)
  if(F_SOURCES)
    add_library(vrk_${name} OBJECT ${F_SOURCES})
    set(scope PUBLIC)
    target_compile_options(vrk_${name} PRIVATE
      $<$<COMPILE_LANGUAGE:CXX>:${VRK_LIBRARY_CXX_FLAGS}>
      $<$<COMPILE_LANGUAGE:C>:-fvisibility=hidden ${VRK_STRICT_FLAGS}>)
    set_property(GLOBAL APPEND PROPERTY VRK_FAMILIES ${name})
  else()
    add_library(vrk_${name} INTERFACE)
    set(scope INTERFACE)
  endif()
  target_include_directories(vrk_${name} ${scope}
    ${root} ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/platform/include)
  # A family's own dependencies stay its own: a family that includes a header
  # of another says so in its own DEPENDS.
  foreach(dep ${F_DEPENDS})
    if(F_SOURCES)
      target_link_libraries(vrk_${name} PRIVATE vrk_${dep})
    else()
      target_link_libraries(vrk_${name} INTERFACE vrk_${dep})
    endif()
  endforeach()
  vrk_check_family_includes(${name} "${F_DEPENDS}")
  if(F_EXPORTS)
    set_property(GLOBAL APPEND PROPERTY VRK_EXPORT_FILES ${CMAKE_CURRENT_SOURCE_DIR}/${F_EXPORTS})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${F_EXPORTS})
  endif()
endfunction()
