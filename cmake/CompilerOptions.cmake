# Options of all own code. Boost, FFmpeg, GoogleTest and the other dependencies come in as SYSTEM
# headers, so their warnings do not count.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN;$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g1 -DNDEBUG")
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # The build folders may share what they compile, precompiled headers included.
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_NOHASHDIR=1
      CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE_PROGRAM})
endif()

set(OPAL_SANITIZE "" CACHE STRING "Sanitizers for everything built here, e.g. address,undefined or thread")
if(OPAL_SANITIZE)
  add_compile_options(-fsanitize=${OPAL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${OPAL_SANITIZE})
  if(OPAL_SANITIZE MATCHES "thread")
    # Boost.Asio has fences that this sanitizer does not model; g++ says so.
    add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
    # Boost's shared_ptr counter through std::atomic, which the sanitizer understands.
    add_compile_definitions(BOOST_SP_USE_STD_ATOMIC)
  endif()
endif()

function(opal_own_code target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta>)
endfunction()
