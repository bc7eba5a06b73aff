find_package(CURL REQUIRED)
opal_test(opal_origin_tests
  SOURCES origin_link_test.cpp origin_parts_test.cpp origin_test.cpp origin_fault_test.cpp
          origin_program_test.cpp
  LIBS opal_origin CURL::libcurl)
target_compile_definitions(opal_origin_tests PRIVATE ORIGIN_PROGRAM="$<TARGET_FILE:opal-origin>")
add_dependencies(opal_origin_tests opal-origin)
