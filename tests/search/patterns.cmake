# Tests of the pattern search tables, the table builder and the binding of
# the analysis module.
vrk_add_test(search_pattern_tests SOURCES pattern_search_test.cpp pattern_builder_test.cpp LIBS vrk_patterns)

# Stand-ins of the analysis module: each a shared object named exactly
# qel.dll, alone in a folder of its own, reached only by child processes
# whose loader search path names that folder.
set(qel_doubles ${CMAKE_BINARY_DIR}/tests/qel)
foreach(variant complete no_free init_fails)
  add_library(qel_double_${variant} SHARED qel_double/qel_double.c)
  set_target_properties(qel_double_${variant} PROPERTIES
    PREFIX "" OUTPUT_NAME qel SUFFIX .dll
    LIBRARY_OUTPUT_DIRECTORY ${qel_doubles}/${variant})
  target_include_directories(qel_double_${variant} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
endforeach()
target_compile_definitions(qel_double_no_free PRIVATE QEL_DOUBLE_OMIT_FREEBUSCA=1)
target_compile_definitions(qel_double_init_fails PRIVATE QEL_DOUBLE_INIT_RESULT=1)

vrk_add_test(search_qel_tests SOURCES qel_binding_test.cpp LIBS vrk_patterns pthread)
add_dependencies(search_qel_tests qel_double_complete qel_double_no_free qel_double_init_fails)
target_compile_definitions(search_qel_tests PRIVATE VRK_QEL_DOUBLES="${qel_doubles}")
