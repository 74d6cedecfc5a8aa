# Compiler settings, libraries and the two functions that every folder uses.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

set(TAVRO_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize takes them")
option(TAVRO_WERROR "Take warnings for errors, as those do who change this project" OFF)
option(TAVRO_PRECOMPILE "Precompile the standard library's headers, JSON and GoogleTest" ON)
option(TAVRO_CHECKED_LIBRARY "Check the standard library's preconditions" OFF)

find_program(TAVRO_CCACHE ccache)
if(TAVRO_CCACHE AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
  # Without this it takes no source that uses precompiled headers.
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
    CCACHE_SLOPPINESS=pch_defines,time_macros ${TAVRO_CCACHE})
endif()

include(TavroDependencies)

# tavro_prefer_static(NAME ARCHIVE SHARED-TARGET): the static archive where the system has one.
function(tavro_prefer_static name archive shared)
  add_library(tavro_${name} INTERFACE)
  add_library(tavro::${name} ALIAS tavro_${name})
  # What nothing calls is left out in every build: the static archive's writer names libraries that
  # only its other formats need.
  target_link_options(tavro_${name} INTERFACE -Wl,--gc-sections)
  if(archive)
    target_link_libraries(tavro_${name} INTERFACE ${archive})
  else()
    target_link_libraries(tavro_${name} INTERFACE ${shared})
  endif()
endfunction()
tavro_prefer_static(archive_library "${TAVRO_STATIC_ARCHIVE}" LibArchive::LibArchive)
tavro_prefer_static(utf8proc_library "${TAVRO_STATIC_UTF8PROC}" PkgConfig::UTF8PROC)

add_library(tavro_settings INTERFACE)
# When it optimises, GCC 12 takes `"text" + std::string` for an overlapping copy or one without a bound,
# and a JSON value made of a string for an array of strings: none of those three warnings. What they
# would find, the address sanitizer does.
# Position independent by one option for libraries and programs, where CMake would take two: they share
# the precompiled headers.
target_compile_options(tavro_settings INTERFACE
  -fPIC -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${TAVRO_WERROR}>:-Werror>
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<BOOL:${TAVRO_PRECOMPILE}>>:-fpch-preprocess>
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<CONFIG:Release>>:-Wno-array-bounds>
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<CONFIG:Release>>:-Wno-stringop-overflow>
  $<$<CONFIG:Release>:-fstack-protector-strong -ffunction-sections -fdata-sections>)
target_compile_definitions(tavro_settings INTERFACE
  _FILE_OFFSET_BITS=64
  $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>
  $<$<BOOL:${TAVRO_CHECKED_LIBRARY}>:_GLIBCXX_ASSERTIONS>)
target_link_options(tavro_settings INTERFACE $<$<CONFIG:Release>:-Wl,-z,relro,-z,now>)
if(TAVRO_SANITIZE)
  target_compile_options(tavro_settings INTERFACE
    -fsanitize=${TAVRO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1)
  target_link_options(tavro_settings INTERFACE -fsanitize=${TAVRO_SANITIZE})
endif()

# What most sources read: parsed once for the product, and once more with GoogleTest for the tests. No
# source may rely on it, which static analysis proves: it goes without.
function(tavro_precompiled_headers name)
  add_library(${name} OBJECT ${PROJECT_SOURCE_DIR}/cmake/precompiled.cpp)
  target_link_libraries(${name} PRIVATE tavro_settings nlohmann_json::nlohmann_json ${ARGN})
endfunction()
function(tavro_use_precompiled target name)
  if(TAVRO_PRECOMPILE)
    target_precompile_headers(${target} REUSE_FROM ${name})
  endif()
endfunction()
if(TAVRO_PRECOMPILE)
  tavro_precompiled_headers(tavro_precompiled)
  target_precompile_headers(tavro_precompiled PRIVATE ${PROJECT_SOURCE_DIR}/cmake/precompiled.h)
endif()

# tavro_room(FOLDER LINKS lib... PRIVATE_LINKS lib... SOURCES file...): one static library, named for
# its folder with underscores for slashes (tavro::platform_files). Includes start at client/, and at
# include/tavro/ once it is installed; in this build only the folders of the libraries that it links
# are found, so that an include of a higher one does not compile.
function(tavro_room folder)
  cmake_parse_arguments(ROOM "" "" "LINKS;PRIVATE_LINKS;SOURCES" ${ARGN})
  string(REPLACE / _ name ${folder})
  add_library(tavro_${name} STATIC ${ROOM_SOURCES})
  add_library(tavro::${name} ALIAS tavro_${name})
  set(view ${PROJECT_BINARY_DIR}/rooms/${name})
  cmake_path(GET folder PARENT_PATH parent)
  file(MAKE_DIRECTORY ${view}/${parent})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${view}/${folder} SYMBOLIC)
  file(GLOB headers RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS *.h)
  list(TRANSFORM headers PREPEND ${view}/${folder}/)
  target_sources(tavro_${name} PUBLIC FILE_SET HEADERS BASE_DIRS ${view} FILES ${headers})
  # Each compiles alone: built by the target all_verify_interface_header_sets.
  set_target_properties(tavro_${name} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  target_compile_features(tavro_${name} PUBLIC cxx_std_20)
  target_link_libraries(tavro_${name}
    PUBLIC nlohmann_json::nlohmann_json ${ROOM_LINKS}
    PRIVATE $<BUILD_INTERFACE:tavro_settings> ${ROOM_PRIVATE_LINKS})
  tavro_use_precompiled(tavro_${name} tavro_precompiled)
  set_property(GLOBAL APPEND PROPERTY TAVRO_ROOMS ${folder})
endfunction()

# tavro_rooms(NAME ROOM...): one name for several of them, tavro::NAME.
function(tavro_rooms name)
  add_library(tavro_${name} INTERFACE)
  add_library(tavro::${name} ALIAS tavro_${name})
  list(TRANSFORM ARGN PREPEND tavro::)
  target_link_libraries(tavro_${name} INTERFACE ${ARGN})
  set_property(GLOBAL APPEND PROPERTY TAVRO_ROOM_GROUPS ${name})
endfunction()

# tavro_program(NAME LINKS lib... SOURCES file...): one executable in bin/.
function(tavro_program name)
  cmake_parse_arguments(PROGRAM "" "" "LINKS;SOURCES" ${ARGN})
  add_executable(${name} ${PROGRAM_SOURCES})
  # Starting is most of what a short command costs: nothing unused, and no library that can be had
  # without loading it.
  target_link_options(${name} PRIVATE
    -Wl,--as-needed $<$<CONFIG:Release>:-static-libstdc++ -static-libgcc>)
  target_link_libraries(${name} PRIVATE tavro_settings ${PROGRAM_LINKS})
  tavro_use_precompiled(${name} tavro_precompiled)
endfunction()

# tavro_test(NAME LINKS lib... SOURCES file...): one GoogleTest program, each case a CTest test, and
# the whole once more as an ordinary user when the suite runs as root.
function(tavro_test name)
  cmake_parse_arguments(TEST "" "" "LINKS;SOURCES" ${ARGN})
  add_executable(${name} ${TEST_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE tavro_settings ${TEST_LINKS} GTest::gmock_main)
  tavro_use_precompiled(${name} tavro_test_precompiled)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 600)
  add_test(NAME ${name}.as_ordinary_user
    COMMAND ${PROJECT_SOURCE_DIR}/tests/support/as_user.sh $<TARGET_FILE:${name}>)
  set_tests_properties(${name}.as_ordinary_user PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 1500)
endfunction()
