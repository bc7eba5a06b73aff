find_package(nlohmann_json REQUIRED)
opal_test(opal_play_tests
  SOURCES PlayPartsTest.cpp PlayProgramTest.cpp
  LIBS opal_play_parts opal_packager opal_origin nlohmann_json::nlohmann_json)
target_compile_definitions(opal_play_tests PRIVATE OPAL_PLAY_PROGRAM="$<TARGET_FILE:opal-play>")
add_dependencies(opal_play_tests opal-play)
