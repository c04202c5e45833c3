# What an installed copy has beside plugins and tools: the libraries, the headers, and
# what lets CMake and pkg-config find them. All paths in it are relative to the files
# they stand in, so that the copy may be moved.

include(CMakePackageConfigHelpers)

set(NOX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/noxcore)
set(NOX_INSTALL_PLUGINDIR ${CMAKE_INSTALL_LIBDIR}/nox)

install(TARGETS nox_core nox_osa nox_osasim nox_host EXPORT noxcoreTargets)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nox FILES_MATCHING PATTERN "*.h")
install(FILES plugins/plugin_messages.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nox)
install(FILES osa/osa.h osa/osa_ext.h osa/host.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nox/osa)
install(FILES osa/sim/osasim.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nox/osa/sim)

# CMake
install(EXPORT noxcoreTargets NAMESPACE nox:: DESTINATION ${NOX_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/noxcoreConfig.cmake.in ${PROJECT_BINARY_DIR}/noxcoreConfig.cmake
    INSTALL_DESTINATION ${NOX_INSTALL_CMAKEDIR} PATH_VARS NOX_INSTALL_PLUGINDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/noxcoreConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/noxcoreConfig.cmake ${PROJECT_BINARY_DIR}/noxcoreConfigVersion.cmake
    cmake/NoxPlugin.cmake cmake/plugin.map
    DESTINATION ${NOX_INSTALL_CMAKEDIR})

# pkg-config
file(RELATIVE_PATH NOX_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" NOX_PC_TO_PREFIX ${NOX_PC_TO_PREFIX})
foreach(name noxcore noxcore-plugin)
    configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
