# What `cmake --install` puts where, in four components: Runtime (the library), Base (the stand-in of
# the base library, for programs without an engine), Development (headers, the package for CMake's
# find_package, files for pkg-config) and Tools (with commands for gdb). Everything finds its
# neighbours from its own place, so an installed tree may be moved.
include(CMakePackageConfigHelpers)

set(zo_package ${CMAKE_INSTALL_LIBDIR}/cmake/zo95Kex)
set(zo_pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS zo95Kex EXPORT zo95Kex
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
    FILE_SET HEADERS DESTINATION ${zo_headers} COMPONENT Development)
install(TARGETS zo95Kbs EXPORT zo95Kex
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Base
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zo95Kbs COMPONENT Development)

# gdb looks for the commands beside the library, but trusts only its own folder, which is below /usr.
install(CODE "
    set(zo_auto_load ${CMAKE_INSTALL_LIBDIR})
    if(CMAKE_INSTALL_PREFIX STREQUAL /usr)
        set(zo_auto_load ${CMAKE_INSTALL_DATADIR}/gdb/auto-load/usr/${CMAKE_INSTALL_LIBDIR})
    endif()" COMPONENT Tools)
install(FILES ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/${zo_gdb_script}
    DESTINATION "\${zo_auto_load}" COMPONENT Tools)

install(EXPORT zo95Kex NAMESPACE zo95Kex:: FILE zo95KexTargets.cmake
    DESTINATION ${zo_package} COMPONENT Development)
configure_package_config_file(cmake/zo95KexConfig.cmake.in zo95KexConfig.cmake
    INSTALL_DESTINATION ${zo_package} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(zo95KexConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zo95KexConfig.cmake
    ${PROJECT_BINARY_DIR}/zo95KexConfigVersion.cmake
    DESTINATION ${zo_package} COMPONENT Development)

file(RELATIVE_PATH zo_up "/${zo_pkgconfig}" "/")
string(REGEX REPLACE "/$" "" zo_up "${zo_up}")
foreach(name zo95Kex zo95Kbs)
    configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${zo_pkgconfig}
        COMPONENT Development)
endforeach()
