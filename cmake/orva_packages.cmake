# Every third-party library, all from the system's packages.

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(Boost REQUIRED)
find_package(RapidJSON REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(CLI11 CONFIG REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(LUA52 REQUIRED IMPORTED_TARGET lua5.2)
pkg_check_modules(ZSTD REQUIRED IMPORTED_TARGET libzstd)
if(ORVA_TESTS)
  find_package(GTest CONFIG REQUIRED)
endif()
if(ORVA_BENCH)
  find_package(benchmark CONFIG REQUIRED)
endif()

# The Lua header declares luaL_openlib only in compatibility mode.
add_library(orva_lua INTERFACE)
target_link_libraries(orva_lua INTERFACE PkgConfig::LUA52)
target_compile_definitions(orva_lua INTERFACE LUA_COMPAT_MODULE)
