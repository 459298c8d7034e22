# Installed layout: headers under include/tavrel/, both libraries, a CMake package
# (find_package(TavrelSys) gives TavrelSys::sys_linux and TavrelSys::platform_linux)
# and a pkg-config file (tavrel-sys).
include(CMakePackageConfigHelpers)

install(DIRECTORY include/tavrel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY platform/include/tavrel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(TARGETS tavrel_sys_linux tavrel_platform_linux EXPORT TavrelSysTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Paths in the package are relative to its own folder; the Android libraries it depends on
# are looked up afresh where it is used (TavrelSysAndroid.cmake).
install(EXPORT TavrelSysTargets NAMESPACE TavrelSys::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TavrelSys)
configure_package_config_file(cmake/TavrelSysConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/TavrelSysConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TavrelSys)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TavrelSysConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TavrelSysConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/TavrelSysConfigVersion.cmake cmake/TavrelSysAndroid.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TavrelSys)

# The .pc file finds its prefix from its own folder, so that the installed tree can be
# moved or installed with a different --prefix than the one configured. It carries no
# runpath (the program decides where its libraries are found) and no -std flag: the
# program's own standard stands, and the headers refuse one older than C++17.
file(RELATIVE_PATH TAVREL_PC_PREFIX_FROM_PCFILEDIR "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig"
  "/prefix")
string(REGEX REPLACE "/$" "" TAVREL_PC_PREFIX_FROM_PCFILEDIR "${TAVREL_PC_PREFIX_FROM_PCFILEDIR}")
configure_file(cmake/tavrel-sys.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tavrel-sys.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tavrel-sys.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
