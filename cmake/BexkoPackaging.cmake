# What an installation offers beyond the programs: the CMake package (find_package(bexko),
# target bexko::sdk), the pkg-config file, and the Debian package made by `cpack -G DEB` from the
# same install rules. Included last by the top CMakeLists.txt, once every install rule exists.
include(CMakePackageConfigHelpers)

set(BEXKO_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/bexko)

install(EXPORT bexkoTargets NAMESPACE bexko:: DESTINATION ${BEXKO_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/bexkoConfig.cmake.in
  ${CMAKE_BINARY_DIR}/cmake/bexkoConfig.cmake
  INSTALL_DESTINATION ${BEXKO_INSTALL_CMAKEDIR}
  PATH_VARS BEXKO_INSTALL_INCLUDEDIR BEXKO_INSTALL_MODULESDIR)
# 0.x: a minor version may break the contract, so only the same minor version is compatible.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/bexkoConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/cmake/bexkoConfig.cmake
  ${CMAKE_BINARY_DIR}/cmake/bexkoConfigVersion.cmake
  DESTINATION ${BEXKO_INSTALL_CMAKEDIR})

configure_file(${CMAKE_CURRENT_LIST_DIR}/bexko.pc.in ${CMAKE_BINARY_DIR}/cmake/bexko.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/cmake/bexko.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The folder whose module libraries the daemon loads at start (empty as installed).
install(DIRECTORY DESTINATION ${BEXKO_INSTALL_MODULESDIR})

# The Debian package: one package with the daemon, the module library, the data, the clients,
# the systemd user unit and what module authors build against. Library dependencies are found
# by dpkg-shlibdeps; what is reached other than by linking is declared here.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME bexko)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Text-to-speech host daemon with a WebSocket JSON-RPC gateway, on eSpeak NG")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "bexko runs the text-to-speech module library of a humanoid robot's middleware on the\n"
  "desktop: a host daemon that loads module libraries and serves their methods as JSON-RPC 2.0\n"
  "over a WebSocket, the synthesis engine on eSpeak NG, the shell client bexko-call, a Python\n"
  "client, a systemd user unit, and the headers, CMake package and pkg-config file to build\n"
  "module libraries against.")
set(CPACK_PACKAGE_CONTACT "bexko developers")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "bexko developers")
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Reached without linking: the voices' data (eSpeak NG), the interpreter and WebSocket library
# of bexko-call and the Python client. The player program and the sound server are optional.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "espeak-ng-data, python3, python3-websocket")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "sndfile-programs")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "pulseaudio | pipewire-pulse")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
include(CPack)
