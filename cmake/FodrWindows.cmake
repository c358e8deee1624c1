# What only the Windows build needs: the system's headers in the shape that the code expects, and those of
# header-only libraries, which the toolchain doesn't have.
target_compile_definitions(fodr_options INTERFACE
  WIN32_LEAN_AND_MEAN NOMINMAX UNICODE _UNICODE _WIN32_WINNT=0x0601 __USE_MINGW_ANSI_STDIO=1
  FODR_PRINTF_STYLE=gnu_printf)

# The compiler's own va_list carries an attribute, and it tells of every template that is given one.
target_compile_options(fodr_options INTERFACE -Wno-ignored-attributes)
# For this target the compiler takes the inline function that it sees for the one that the linker will choose, and
# trusts in the registers that it leaves alone; another file's may be compiled otherwise.
target_compile_options(fodr_options INTERFACE -fno-ipa-ra)

target_compile_options(fodr_options INTERFACE $<$<BOOL:$<TARGET_PROPERTY:FODR_IS_TEST>>:-O0>)

# Only the folders of these libraries: the rest of /usr/include is another system's.
set(borrowed ${CMAKE_BINARY_DIR}/include)
file(MAKE_DIRECTORY ${borrowed})
foreach(library CLI)
  if(NOT EXISTS /usr/include/${library})
    message(FATAL_ERROR "the headers of ${library} are missing in /usr/include")
  endif()
  file(CREATE_LINK /usr/include/${library} ${borrowed}/${library} SYMBOLIC)
endforeach()
target_include_directories(fodr_options SYSTEM INTERFACE ${borrowed})

# fodr_version_resource(TARGET DESCRIPTION): the block that Explorer and GetFileVersionInfo read.
enable_language(RC)
function(fodr_version_resource target description)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    set(file_type 1) # VFT_APP
    set(extension exe)
  else()
    set(file_type 2) # VFT_DLL
    set(extension dll)
  endif()
  set(file_name ${target}.${extension})
  set(file_description ${description})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${CMAKE_BINARY_DIR}/resources/${target}.rc @ONLY)
  target_sources(${target} PRIVATE ${CMAKE_BINARY_DIR}/resources/${target}.rc)
endfunction()

# The tests' library, from Debian's package of its sources. Tests aren't optimised: they are compiled more often
# than they run.
function(fodr_build_googletest)
  set(INSTALL_GTEST OFF)
  set(BUILD_SHARED_LIBS OFF)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
endfunction()
