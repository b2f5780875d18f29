# Our own build only: warnings and sanitizers. Linked PRIVATE by our targets and never exported.
add_library(nimbrel2_build_flags INTERFACE)
target_compile_options(nimbrel2_build_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
                       $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(nimbrel2_build_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()
if(NIMBREL2_WARNINGS_AS_ERRORS)
  target_compile_options(nimbrel2_build_flags INTERFACE -Werror)
endif()
if(NIMBREL2_BUILD_FUZZ)
  # What is fuzzed must count its branches, or the fuzzer is blind; the programs alone link libFuzzer itself.
  target_compile_options(nimbrel2_build_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(NIMBREL2_SANITIZE)
  target_compile_options(nimbrel2_build_flags INTERFACE -fsanitize=${NIMBREL2_SANITIZE} -fno-omit-frame-pointer
                         -fno-sanitize-recover=all)
  target_link_options(nimbrel2_build_flags INTERFACE -fsanitize=${NIMBREL2_SANITIZE})
  if(NIMBREL2_SANITIZE MATCHES "undefined")
    # To look at an object's type it opens a pipe, and ends the tests that leave no descriptors.
    target_compile_options(nimbrel2_build_flags INTERFACE -fno-sanitize=vptr)
  endif()
endif()

# One object target a folder: nimbrel2_object_library(NAME SOURCES ... LINKS ...)
function(nimbrel2_object_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} OBJECT ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>)
  target_link_libraries(${name} PUBLIC ${ARG_LINKS} PRIVATE $<BUILD_INTERFACE:nimbrel2_build_flags>)
endfunction()

# A room of the platform: its objects, for the libraries that ship, and an archive of them, for whoever links this room
# and those below it only. nimbrel2_room(NAME SOURCES ... LINKS ...)
function(nimbrel2_room name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  nimbrel2_object_library(${name}_objects SOURCES ${ARG_SOURCES} LINKS ${ARG_LINKS})
  add_library(${name} STATIC $<TARGET_OBJECTS:${name}_objects>)
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>)
  target_link_libraries(${name} PUBLIC ${ARG_LINKS} PRIVATE $<BUILD_INTERFACE:nimbrel2_build_flags>)
endfunction()

# A library that is installed: its SONAME has the minor version until 1.0, and what the linker shows of it is Nimbrel2's
# and the HAL's. Code of other libraries' templates, which they mark as visible, is left out.
function(nimbrel2_shared_library name)
  target_compile_features(${name} PUBLIC cxx_std_17)  # what installed headers need
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION}
                                           SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  if(BUILD_SHARED_LIBS)
    target_link_options(${name} PRIVATE LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
    set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
    # Never unloaded: a worker or a callback that had to be left behind still runs in it.
    target_link_options(${name} PRIVATE LINKER:-z,nodelete)
  endif()
endfunction()
