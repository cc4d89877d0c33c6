# How every target of this project is compiled: one interface target for warnings, one for sanitizers and coverage, and
# a function that makes a library the way both of ours are made.

add_library(qx_warnings INTERFACE)
target_compile_options(qx_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wcast-align -Wcast-qual -Wformat=2 -Wundef
  -Wdouble-promotion -Wnull-dereference -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast>
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wlogical-op>
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wuseless-cast>
  # g++ 12 sees overlaps in std::string where there are none (its bug 105329).
  $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
  $<$<BOOL:${QXDICT_WERROR}>:-Werror>)

add_library(qx_instrumentation INTERFACE)
if(QXDICT_SANITIZE)
  target_compile_options(qx_instrumentation INTERFACE
    -fsanitize=${QXDICT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(qx_instrumentation INTERFACE -fsanitize=${QXDICT_SANITIZE})
endif()
if(QXDICT_COVERAGE)
  # Threads count too: without atomic counters some of them turn negative.
  target_compile_options(qx_instrumentation INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(qx_instrumentation INTERFACE --coverage)
  # The children of death tests count too.
  add_library(qx_coverage_end OBJECT ${PROJECT_SOURCE_DIR}/tests/support/coverage_end.cc)
  set_target_properties(qx_coverage_end PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_compile_features(qx_coverage_end PRIVATE cxx_std_20)
  target_link_libraries(qx_coverage_end PRIVATE qx_warnings)
endif()

# Assertions are behaviour: no build type may define NDEBUG.
foreach(type RELEASE RELWITHDEBINFO MINSIZEREL)
  foreach(language C CXX)
    string(REPLACE "-DNDEBUG" "" CMAKE_${language}_FLAGS_${type} "${CMAKE_${language}_FLAGS_${type}}")
  endforeach()
endforeach()

# qx_shared_library(NAME SOURCES source... [LINK library...])
#
# Compiles the sources once, position independent and with hidden visibility, and makes of them NAME, the shared library
# that is installed, and NAME_internal, an archive for tests of what is not exported. libNAME.map beside the sources says
# which names the library exports, and their version.
function(qx_shared_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name}_objects OBJECT ${arg_SOURCES})
  target_compile_features(${name}_objects PUBLIC cxx_std_20 c_std_11)
  set_target_properties(${name}_objects PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden C_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON CXX_EXTENSIONS OFF)
  target_compile_options(${name}_objects PRIVATE -fno-exceptions -fno-rtti -fno-semantic-interposition)
  if(QXDICT_PROFILE)
    target_compile_options(${name}_objects PRIVATE -fprofile-${QXDICT_PROFILE} -fprofile-update=atomic
      $<$<STREQUAL:${QXDICT_PROFILE},use>:-fprofile-correction -Wno-missing-profile -Wno-coverage-mismatch>)
  endif()
  target_include_directories(${name}_objects PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${name}_objects PUBLIC ${arg_LINK} PRIVATE qx_warnings qx_instrumentation)

  add_library(${name} SHARED)
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:${name}_objects> qx_instrumentation PUBLIC ${arg_LINK})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/qxdict>)
  if(QXDICT_PROFILE STREQUAL "generate")
    target_link_options(${name} PRIVATE -fprofile-generate)
  endif()
  set(exports "${CMAKE_CURRENT_SOURCE_DIR}/lib${name}.map")
  # Never unloaded: a cache's collector may be running in its code when a program closes the library.
  target_link_options(${name} PRIVATE -Wl,-z,defs,-z,relro,-z,now,-z,nodelete "-Wl,--version-script=${exports}")
  set_target_properties(${name} PROPERTIES LINK_DEPENDS "${exports}")
  if(QXDICT_COVERAGE)
    target_sources(${name} PRIVATE $<TARGET_OBJECTS:qx_coverage_end>)
  endif()
  if(QXDICT_SANITIZE)
    # clang leaves the sanitizer runtime to the executable.
    target_link_options(${name} PRIVATE -Wl,-z,undefs)
  endif()
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} LINKER_LANGUAGE CXX)
  add_library(qxdict::${name} ALIAS ${name})

  add_library(${name}_internal STATIC EXCLUDE_FROM_ALL)
  target_link_libraries(${name}_internal PUBLIC ${name}_objects qx_instrumentation)
endfunction()
