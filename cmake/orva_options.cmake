# orva_options: the language, the warnings and the definitions that hold for every target.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# Programs too: a precompiled header serves only code compiled with the very same kind.
set(CMAKE_CXX_COMPILE_OPTIONS_PIE -fPIC)
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1 -DNDEBUG")

add_library(orva_options INTERFACE)
# What is part of every mutex, or of every sample, is so in the whole tree.
if(ORVA_LOCK_ORDER)
  add_compile_definitions(ORVA_LOCK_ORDER)
endif()
if(ORVA_LIVE_COUNTS)
  add_compile_definitions(ORVA_LIVE_COUNTS)
endif()
target_compile_definitions(orva_options INTERFACE
  _FILE_OFFSET_BITS=64 _TIME_BITS=64 RAPIDJSON_HAS_STDSTRING=1)
target_compile_options(orva_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
  -Wnon-virtual-dtor -Woverloaded-virtual -Werror)
target_include_directories(orva_options SYSTEM INTERFACE ${RapidJSON_INCLUDE_DIRS})
target_link_libraries(orva_options INTERFACE Boost::headers Threads::Threads)

if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  target_compile_options(orva_options INTERFACE -Wthread-safety -Werror=thread-safety)
else()
  # g++ 12 warns of overlapping copies inside std::string's own operator+; -Wpsabi only tells of an
  # ABI change between old compilers.
  target_compile_options(orva_options INTERFACE -Wno-restrict -Wno-psabi)
endif()

if(ORVA_SANITIZE)
  # Set for the whole tree, not per target: host and add-ins must agree on them.
  add_compile_options(-fsanitize=${ORVA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORVA_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    # The instrumented flow makes g++ see uninitialised uses that are none.
    target_compile_options(orva_options INTERFACE -Wno-maybe-uninitialized)
  endif()
  if(ORVA_SANITIZE MATCHES thread)
    target_compile_definitions(orva_options INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK)
  endif()
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    add_compile_options(-fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/cmake/sanitize_ignore.txt)
  endif()
endif()

option(ORVA_COVERAGE "count which lines of the add-ins run" OFF)
if(ORVA_COVERAGE)
  add_link_options(--coverage)
endif()

add_library(orva_headers INTERFACE)
target_include_directories(orva_headers INTERFACE ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(orva_headers INTERFACE orva_options)
