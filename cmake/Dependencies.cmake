# Every dependency as an imported target, so that its headers are SYSTEM headers.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS thread date_time system)
find_package(CURL REQUIRED)
pkg_check_modules(LOG4CXX REQUIRED IMPORTED_TARGET liblog4cxx)
pkg_check_modules(TINYXML REQUIRED IMPORTED_TARGET tinyxml)
pkg_check_modules(LIBAV REQUIRED IMPORTED_TARGET libavformat libavcodec libavfilter libavutil libswscale
                 libswresample)
pkg_check_modules(SDL2 REQUIRED IMPORTED_TARGET sdl2)
pkg_check_modules(DIRECTFB REQUIRED IMPORTED_TARGET directfb)
pkg_check_modules(FREETYPE REQUIRED IMPORTED_TARGET freetype2)
pkg_check_modules(PNG REQUIRED IMPORTED_TARGET libpng)
