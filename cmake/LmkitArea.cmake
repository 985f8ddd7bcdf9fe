# lmkit_compile_sources(TARGET [HEADER ...]) sets how the library's, the test equipment's and
# the tool's sources are compiled. By default eight at a time, as one unit each (a unity build):
# most of a file's compile time goes to the third-party headers and the templates they
# instantiate (CLI11 alone costs five seconds a file), so a fresh build takes a third of the time
# it takes file by file; precompiled headers save nothing more there. With LMKIT_UNITY_BUILD off
# (the debug preset) files compile one at a time against precompiled headers, and an edit to one
# file rebuilds in seconds.
function(lmkit_compile_sources target)
  if(LMKIT_UNITY_BUILD)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
  else()
    target_precompile_headers(${target} PRIVATE ${LMKIT_PRECOMPILED_HEADERS} ${ARGN})
  endif()
endfunction()

# lmkit_area(NAME DEPS ...) builds src/NAME/**.cpp into the static library lmkit_NAME.
# An area without sources yet contributes nothing.
set(LMKIT_AREA_TARGETS "")
function(lmkit_area name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/${name}/*.cpp")
  set(target lmkit_${name})
  if(sources)
    add_library(${target} STATIC ${sources})
    target_compile_options(${target} PRIVATE -Wall -Wextra)
    lmkit_compile_sources(${target})
    target_include_directories(${target}
      PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>
      PRIVATE ${PROJECT_SOURCE_DIR}/src)
  else()
    add_library(${target} INTERFACE)
  endif()
  if(sources)
    target_link_libraries(${target} PUBLIC ${ARG_DEPS})
  else()
    target_link_libraries(${target} INTERFACE ${ARG_DEPS})
  endif()
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
  add_library(lmkit::${name} ALIAS ${target})
  set(LMKIT_AREA_TARGETS ${LMKIT_AREA_TARGETS} ${target} PARENT_SCOPE)
endfunction()
