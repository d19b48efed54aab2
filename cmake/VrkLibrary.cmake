# Assembles libVrkutil.so from the family object libraries.
get_property(families GLOBAL PROPERTY VRK_FAMILIES)
get_property(export_files GLOBAL PROPERTY VRK_EXPORT_FILES)

# The version script: every exported function under the node "Base",
# everything else local.
set(VRK_EXPORTS "")
foreach(f ${export_files})
  file(STRINGS ${f} names REGEX "^[A-Za-z_][A-Za-z0-9_]*$")
  list(APPEND VRK_EXPORTS ${names})
endforeach()
list(SORT VRK_EXPORTS)
list(REMOVE_DUPLICATES VRK_EXPORTS)
set(VRK_EXPORTS ${VRK_EXPORTS} CACHE INTERNAL "Functions exported by libVrkutil.so")
set(script "Base {\n  global:\n")
foreach(n ${VRK_EXPORTS})
  string(APPEND script "    ${n};\n")
endforeach()
string(APPEND script "  local:\n    *;\n};\n")
set(VRK_VERSION_SCRIPT ${CMAKE_BINARY_DIR}/libVrkutil.map)
file(CONFIGURE OUTPUT ${VRK_VERSION_SCRIPT} CONTENT "${script}")
string(REPLACE ";" "\n" export_list "${VRK_EXPORTS}")
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/libVrkutil.exports CONTENT "${export_list}\n")

set(objects "")
foreach(family ${families})
  list(APPEND objects $<TARGET_OBJECTS:vrk_${family}>)
endforeach()
add_library(Vrkutil SHARED ${objects})
target_include_directories(Vrkutil INTERFACE ${PROJECT_SOURCE_DIR}/include)
# Linked by the C driver: the library must not need libstdc++ or libgcc_s at
# run time, so neither is put on its link line (libgcc's helpers for 64-bit
# division are linked in statically).
set_target_properties(Vrkutil PROPERTIES
  LINKER_LANGUAGE C
  LINK_DEPENDS ${VRK_VERSION_SCRIPT})
target_link_options(Vrkutil PRIVATE
  -static-libgcc
  -Wl,--version-script=${VRK_VERSION_SCRIPT}
  ${VRK_NO_UNDEFINED}
  -Wl,-z,noexecstack)
# The sibling libraries stay needed even while no family calls into one of
# them yet: the product loads them by name beside this library. Whatever the
# toolchain appends after them (the C++ runtime) is dropped unless used, and
# the ABI test checks that it is not.
target_link_libraries(Vrkutil PRIVATE -Wl,--no-as-needed Vrkalloc Vrkvfile -Wl,--as-needed)
