# What our own targets are compiled with and users' targets are not.

find_program(VISION_CCACHE ccache)
if(PROJECT_IS_TOP_LEVEL AND VISION_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${VISION_CCACHE})
endif()

add_library(vision_developer INTERFACE)
target_compile_options(vision_developer INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wnon-virtual-dtor)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # g++ 12's false alarms: in std::string's operator+, and about Asio's coroutine
  # frames where one of their operators new and delete is inlined and one is not.
  target_compile_options(vision_developer INTERFACE -Wno-restrict -Wno-mismatched-new-delete)
else()
  # libstdc++ 12's std::stable_sort is written with a function that it has deprecated.
  target_compile_options(vision_developer INTERFACE -Wno-deprecated-declarations)
endif()
if(VISION_WARNINGS_AS_ERRORS)
  target_compile_options(vision_developer INTERFACE -Werror)
endif()

if(VISION_SANITIZE)
  add_compile_options(-fsanitize=${VISION_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VISION_SANITIZE})
  # Asio's re-use of coroutine frames would hide a use after free.
  add_compile_definitions(BOOST_ASIO_DISABLE_AWAITABLE_FRAME_RECYCLING)
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    add_compile_options(-Wno-maybe-uninitialized)  # false alarms in std::variant when instrumented
  endif()
endif()

if(VISION_COVERAGE)
  # One file per program, to which each of its runs adds. The tests are counted too:
  # they are what instantiates the templates of the public headers.
  set(VISION_PROFILE -fprofile-instr-generate=${PROJECT_BINARY_DIR}/profiles/%m.profraw)
  add_compile_options(${VISION_PROFILE} -fcoverage-mapping)
  add_link_options(${VISION_PROFILE})
endif()
