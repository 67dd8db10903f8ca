# What most sources include, for the precompiled headers. RapidJSON comes by way of share/json.h, which
# insists on being the first to include it; not by an absolute path, which ccache would not make
# relative, so that no clone found what another one has compiled.
set(ORVA_COMMON_HEADERS
  <algorithm> <functional> <map> <memory> <set> <string> <unordered_map> <vector>
  <boost/make_shared.hpp> <boost/shared_ptr.hpp>
  <share/json.h>)

# orva_glob(<variable> <pattern>...): the sources of the current folder that match, followed as
# files come and go.
function(orva_glob variable)
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  file(GLOB_RECURSE found CONFIGURE_DEPENDS ${ARGN})
  set(${variable} ${found} PARENT_SCOPE)
endfunction()

# orva_addin(<name> LIBRARIES <public>... SHARED_LIBRARIES <only for the shared library>...):
# three targets from the sources of the current folder. <name>_objects is compiled once, <name> is
# the shared library that a host loads, <name>_static is for tests and benchmarks.
function(orva_addin name)
  cmake_parse_arguments(ARG "" "" "LIBRARIES;SHARED_LIBRARIES" ${ARGN})
  orva_glob(sources *.cpp)
  if(NOT sources)
    message(STATUS "${name}: no sources, skipped")
    return()
  endif()
  add_library(${name}_objects OBJECT ${sources})
  target_include_directories(${name}_objects PUBLIC ${PROJECT_SOURCE_DIR}/addins)
  target_link_libraries(${name}_objects PUBLIC orva_headers ${ARG_LIBRARIES})
  target_precompile_headers(${name}_objects PRIVATE ${ORVA_COMMON_HEADERS})

  # What the host supplies stays undefined in the shared library and is found when it is loaded.
  add_library(${name} SHARED $<TARGET_OBJECTS:${name}_objects>)
  target_link_libraries(${name} PRIVATE orva_options ${ARG_LIBRARIES} ${ARG_SHARED_LIBRARIES})
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX)

  add_library(${name}_static STATIC $<TARGET_OBJECTS:${name}_objects>)
  target_include_directories(${name}_static PUBLIC ${PROJECT_SOURCE_DIR}/addins)
  target_link_libraries(${name}_static PUBLIC orva_headers ${ARG_LIBRARIES})
  set_target_properties(${name}_static PROPERTIES LINKER_LANGUAGE CXX)
endfunction()

# orva_link_parts(<target>): the libraries a test or benchmark is made of, dependents first.
function(orva_link_parts target)
  foreach(part orva_events_log_static orva_sqlite_static orva_database_static orva_host_lib)
    if(TARGET ${part})
      target_link_libraries(${target} PUBLIC ${part})
    endif()
  endforeach()
  target_link_libraries(${target} PUBLIC orva_headers)
  target_include_directories(${target} PUBLIC
    ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/addins ${PROJECT_SOURCE_DIR}/host)
endfunction()
