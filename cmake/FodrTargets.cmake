# What every target of the project has in common.
add_library(fodr_options INTERFACE)
target_compile_options(fodr_options INTERFACE
  -Wall -Wextra -Wconversion -Wshadow -Werror -fno-strict-aliasing)
target_compile_definitions(fodr_options INTERFACE _FILE_OFFSET_BITS=64)
target_include_directories(fodr_options INTERFACE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(fodr_options INTERFACE Threads::Threads)

if(FODR_SANITIZE)
  target_compile_options(fodr_options INTERFACE
    -fsanitize=${FODR_SANITIZE} -fno-omit-frame-pointer -g1
    -O$<IF:$<BOOL:$<TARGET_PROPERTY:FODR_IS_TEST>>,0,1>) # a test's own speed isn't worth its compile time
  target_link_options(fodr_options INTERFACE -fsanitize=${FODR_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC's own <regex> trips over this warning once it is instrumented; other builds keep it.
    target_compile_options(fodr_options INTERFACE -Wno-maybe-uninitialized)
  endif()
  if(FODR_SANITIZE MATCHES "undefined")
    target_compile_options(fodr_options INTERFACE -fno-sanitize-recover=undefined)
  endif()
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # Optimised, g++ 12 warns of overlapping copies inside std::string that can't happen.
  target_compile_options(fodr_options INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(fodr_options INTERFACE -Wthread-safety)
endif()

if(WIN32)
  set(FODR_PLATFORM windows)
else()
  set(FODR_PLATFORM linux)
endif()

# fodr_room(NAME FOLDERS... [LINKS ...]): one room of the house as a static library of every source in its
# folders. The rooms it may include are the ones it links, so that an arrow that points up doesn't build.
function(fodr_room name)
  cmake_parse_arguments(ROOM "" "" "FOLDERS;LINKS;PRIVATE_LINKS" ${ARGN})
  set(sources)
  foreach(folder ${ROOM_FOLDERS})
    file(GLOB found CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.cpp)
    list(APPEND sources ${found})
  endforeach()
  if(NOT sources)
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE fodr_options ${ROOM_LINKS})
    return()
  endif()
  add_library(${name} STATIC ${sources})
  target_link_libraries(${name} PUBLIC fodr_options ${ROOM_LINKS} PRIVATE ${ROOM_PRIVATE_LINKS})
endfunction()

# fodr_test(NAME LINKS...): the suite of one room, tests/NAME/*Test.cpp, as one program that ctest runs. What only
# one system can be asked is in the folder tests/NAME/linux or tests/NAME/windows.
function(fodr_test name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${name}/*.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/${name}/${FODR_PLATFORM}/*.cpp)
  if(NOT sources)
    return()
  endif()
  file(GLOB helpers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${FODR_PLATFORM}/*.cpp)
  add_executable(test_${name} ${sources} ${helpers})
  set_target_properties(test_${name} PROPERTIES FODR_IS_TEST ON)
  target_include_directories(test_${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests
    ${PROJECT_SOURCE_DIR}/tests/${FODR_PLATFORM})
  target_compile_definitions(test_${name} PRIVATE FODR_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  target_link_libraries(test_${name} PRIVATE fodr_options ${ARGN} GTest::gmock GTest::gtest_main)
  add_test(NAME ${name} COMMAND test_${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
endfunction()
