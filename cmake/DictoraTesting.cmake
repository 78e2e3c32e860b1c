# Tests are QtTest executables registered with CTest. Exit code 77 means
# "skipped" (used when ../shared/testdata or a system service is missing).
get_filename_component(DICTORA_SHARED_TESTDATA "${CMAKE_SOURCE_DIR}/../shared/testdata" ABSOLUTE)

# dictora_add_test(NAME SOURCES ... LIBS ... [LABELS ...] [WRAPPER cmd...] [TIMEOUT s])
function(dictora_add_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS;LABELS;WRAPPER" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE Qt6::Test dictora_test_support ${T_LIBS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  add_test(NAME ${name} COMMAND ${T_WRAPPER} $<TARGET_FILE:${name}>)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set_tests_properties(${name} PROPERTIES
    SKIP_RETURN_CODE 77
    TIMEOUT ${T_TIMEOUT}
    LABELS "${T_LABELS}"
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;DICTORA_SHARED_TESTDATA=${DICTORA_SHARED_TESTDATA}")
endfunction()
