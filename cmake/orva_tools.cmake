# Faster tools where they are installed; nothing here is needed for a build.

find_program(ORVA_CCACHE ccache)
if(ORVA_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # Paths are hashed relative to the build folder, so that another clone finds what this one has
  # compiled. Precompiled headers are cached only when ccache may overlook time stamps and defines.
  cmake_path(IS_PREFIX PROJECT_SOURCE_DIR ${PROJECT_BINARY_DIR} NORMALIZE inside)
  set(base /)
  if(inside)
    set(base ${PROJECT_SOURCE_DIR})
  endif()
  set(CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env
      CCACHE_BASEDIR=${base} CCACHE_NOHASHDIR=1
      CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
      ${ORVA_CCACHE})
endif()

include(CheckLinkerFlag)
check_linker_flag(CXX -fuse-ld=mold ORVA_HAS_MOLD)
if(ORVA_HAS_MOLD)
  add_link_options(-fuse-ld=mold)
endif()
