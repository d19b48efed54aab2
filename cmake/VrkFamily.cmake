# vrk_family(NAME SOURCES ... [DEPENDS family...] [EXPORTS file])
#
# Declares one family of the library as an OBJECT library `vrk_<NAME>`. A
# family sees the public headers, the platform contract and the families it
# names in DEPENDS, nothing else, so a stray cross-family include fails to
# compile. EXPORTS names a text file listing the family's exported C
# functions, one per line; they are collected into the linker version script.

# Compile flags of code that ends up inside libVrkutil.so: nothing may need
# the C++ runtime library at run time, and nothing is visible unless marked.
set(VRK_LIBRARY_CXX_FLAGS
  ${VRK_STRICT_FLAGS} -fvisibility=hidden -fvisibility-inlines-hidden
  -fno-exceptions -fno-rtti -fno-threadsafe-statics
  $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)

function(vrk_family name)
  cmake_parse_arguments(F "" "EXPORTS" "SOURCES;DEPENDS" ${ARGN})
  add_library(vrk_${name} OBJECT ${F_SOURCES})
  target_compile_options(vrk_${name} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:${VRK_LIBRARY_CXX_FLAGS}>
    $<$<COMPILE_LANGUAGE:C>:-fvisibility=hidden ${VRK_STRICT_FLAGS}>)
  target_include_directories(vrk_${name} PUBLIC
    ${PROJECT_SOURCE_DIR}/include
    ${PROJECT_SOURCE_DIR}/platform/include)
  target_include_directories(vrk_${name} PRIVATE ${PROJECT_SOURCE_DIR})
  foreach(dep ${F_DEPENDS})
    target_link_libraries(vrk_${name} PUBLIC vrk_${dep})
  endforeach()
  set_property(GLOBAL APPEND PROPERTY VRK_FAMILIES ${name})
  if(F_EXPORTS)
    set_property(GLOBAL APPEND PROPERTY VRK_EXPORT_FILES ${CMAKE_CURRENT_SOURCE_DIR}/${F_EXPORTS})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${F_EXPORTS})
  endif()
endfunction()
