# The Debian packages orva-database, orva-sqlite, orva-host, orva-cli and orva-dev: one for each
# component that is installed.
set(ORVA_PACKAGE_VERSION "${PROJECT_VERSION}" CACHE STRING "version of the packages")
set(ORVA_PACKAGE_CONTACT "orva_database maintainers <maintainers@orva.example.org>"
  CACHE STRING "who answers for the packages")
set(components database sqlite host cli dev)

# ---- files that every package has
function(orva_gzip input output)
  add_custom_command(OUTPUT ${output} COMMAND gzip -9 --no-name --stdout ${input} > ${output}
    DEPENDS ${input} VERBATIM)
  get_filename_component(name ${output} NAME)
  add_custom_target(orva_${name} ALL DEPENDS ${output})
endfunction()

string(TIMESTAMP ORVA_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component ${components})
  set(doc ${CMAKE_INSTALL_DATADIR}/doc/orva-${component})
  set(ORVA_PACKAGE_NAME orva-${component})
  set(changelog ${CMAKE_CURRENT_BINARY_DIR}/${component}-changelog)
  configure_file(deb/changelog.in ${changelog} @ONLY)
  orva_gzip(${changelog} ${changelog}.gz)
  install(FILES ${changelog}.gz DESTINATION ${doc} RENAME changelog.gz COMPONENT ${component})
  install(FILES deb/copyright DESTINATION ${doc} COMPONENT ${component})
endforeach()

# ---- what holds for all of them
set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME orva)
set(CPACK_PACKAGE_VERSION ${ORVA_PACKAGE_VERSION})
set(CPACK_PACKAGE_CONTACT ${ORVA_PACKAGE_CONTACT})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_SET_DESTDIR ON)  # some files lie outside of the prefix
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)

set(same "(= ${ORVA_PACKAGE_VERSION})")
set(CPACK_DEBIAN_SQLITE_PACKAGE_DEPENDS "orva-database ${same}")
# Its configuration names both add-ins.
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS "adduser, orva-database ${same}, orva-sqlite ${same}")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "orva-database ${same}, libboost-dev, rapidjson-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "cmake, g++, liblua5.2-dev, orva-host")
set(CPACK_DEBIAN_DATABASE_PACKAGE_SUGGESTS orva-host)
set(CPACK_DEBIAN_HOST_PACKAGE_RECOMMENDS orva-cli)

set(CPACK_COMPONENT_DATABASE_DESCRIPTION
  "history service of a PLC runtime
An add-in, liborva_database.so, that keeps recent and recently read values of
process variables in memory, passes new ones to archives and answers requests
for history.")
set(CPACK_COMPONENT_SQLITE_DESCRIPTION
  "archives in SQLite files for the orva history service
The provider \"sqlite\" keeps history, the provider \"eventslog\" the
host's events.")
set(CPACK_COMPONENT_HOST_DESCRIPTION
  "host that runs the orva history service without a controller
The program orva_host, its trend page and the service orva-host. It loads
add-ins, runs Lua programs and serves history over HTTP.")
set(CPACK_COMPONENT_CLI_DESCRIPTION
  "command line of the orva history service
The program orva lists items, reads and follows their history and shows how a
host fares.")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "development files of the orva history service
Headers, a CMake package and a template for archive providers and other
add-ins.")

# ---- libraries
if(CMAKE_CROSSCOMPILING)
  include(${CMAKE_CURRENT_LIST_DIR}/cross_depends.cmake)
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
endif()

# ---- maintainer scripts
set(control ${CMAKE_CURRENT_BINARY_DIR}/host-control)
foreach(script postinst prerm postrm)
  configure_file(deb/host.${script}.in ${control}/${script} @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                     WORLD_READ WORLD_EXECUTE)
endforeach()
file(GLOB programs RELATIVE ${examples} CONFIGURE_DEPENDS ${examples}/programs/*.lua)
list(TRANSFORM programs PREPEND ${ORVA_CONFIG_DIR}/)
list(JOIN programs "\n" programs)
file(CONFIGURE OUTPUT ${control}/conffiles CONTENT "${ORVA_CONFIG_DIR}/host.json\n${programs}\n")
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_EXTRA
  ${control}/postinst ${control}/prerm ${control}/postrm ${control}/conffiles)

include(CPack)
