opal_test(opal_package_tests
  SOURCES PackageCommandTest.cpp PackageFilmTest.cpp PackagePlanTest.cpp PackageSourceTest.cpp
          PackageWriterTest.cpp
  LIBS opal_packager opal_demux PkgConfig::LIBAV PkgConfig::TINYXML)
target_compile_definitions(opal_package_tests PRIVATE
  OPAL_PACKAGE_PROGRAM="$<TARGET_FILE:opal-package>")
add_dependencies(opal_package_tests opal-package)
