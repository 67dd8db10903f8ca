# dpkg-shlibdeps knows the libraries of this machine's architecture alone, so these stand here.
# scripts/package.sh compares them with what the files need.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
set(base "libc6 (>= 2.36), libgcc-s1 (>= 4), libstdc++6 (>= 12)")
set(stores "libsqlite3-0 (>= 3.40), libzstd1 (>= 1.5)")
set(CPACK_DEBIAN_DATABASE_PACKAGE_DEPENDS "${base}, liblua5.2-0")
string(APPEND CPACK_DEBIAN_SQLITE_PACKAGE_DEPENDS ", ${base}, ${stores}")
string(APPEND CPACK_DEBIAN_HOST_PACKAGE_DEPENDS ", ${base}, liblua5.2-0")
# Sources compiled together bring more of the host along than this machine's own build does.
set(CPACK_DEBIAN_CLI_PACKAGE_DEPENDS "${base}, ${stores}, liblua5.2-0")
