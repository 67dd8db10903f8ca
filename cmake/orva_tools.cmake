# Faster tools where they are installed; nothing here is needed for a build.

find_program(ORVA_CCACHE ccache)
if(ORVA_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # Precompiled headers are cached only when ccache may overlook their time stamps and defines.
  set(CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env
      CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
      ${ORVA_CCACHE})
endif()

include(CheckLinkerFlag)
check_linker_flag(CXX -fuse-ld=mold ORVA_HAS_MOLD)
if(ORVA_HAS_MOLD)
  add_link_options(-fuse-ld=mold)
endif()
