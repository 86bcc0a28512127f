# What an integrator gets from `cmake --install`: besides the libraries and
# headers (installed where they are built), a CMake package config for
# find_package(zmauth) and a pkg-config file zmauth.pc. Both are relocatable:
# they find the tree from where they were installed.
include(CMakePackageConfigHelpers)

set(ZMAUTH_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zmauth)

install(EXPORT zmauthTargets
    NAMESPACE zmauth::
    DESTINATION ${ZMAUTH_CMAKE_INSTALL_DIR})
configure_package_config_file(
    ${CMAKE_CURRENT_LIST_DIR}/zmauthConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/zmauthConfig.cmake
    INSTALL_DESTINATION ${ZMAUTH_CMAKE_INSTALL_DIR})
write_basic_package_version_file(
    ${CMAKE_CURRENT_BINARY_DIR}/zmauthConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/zmauthConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/zmauthConfigVersion.cmake
    DESTINATION ${ZMAUTH_CMAKE_INSTALL_DIR})

file(RELATIVE_PATH ZMAUTH_PC_PREFIX_FROM_PCDIR
    ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ZMAUTH_PC_PREFIX_FROM_PCDIR "${ZMAUTH_PC_PREFIX_FROM_PCDIR}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/zmauth.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zmauth.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zmauth.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
