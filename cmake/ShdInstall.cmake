# What cmake --install puts where, for a Linux board and for programs that are clients, and the two
# Debian packages of it: shd (component runtime) and libshdclient-dev (component dev).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(SHD_PACKAGING ${PROJECT_SOURCE_DIR}/packaging)
set(SHD_UNIT_DIR lib/systemd/system CACHE STRING "Directory of the systemd units below the prefix")
set(SHD_GENERATED ${PROJECT_BINARY_DIR}/packaging)

# CMake makes directories under the umask, and nothing else can say how.
install(CODE [[
  execute_process(COMMAND sh -c umask OUTPUT_VARIABLE mask OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT mask MATCHES "[02]$")
    message(FATAL_ERROR "With umask ${mask} neither the daemon nor a client gets into the directories"
      " that this makes. Say umask 022 first.")
  endif()]] ALL_COMPONENTS)

# The daemon and what starts it.
install(TARGETS shd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT runtime)
# The prefix may be chosen as late as at the installation.
install(CODE "
  set(SBINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
  set(LIBEXECDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBEXECDIR}\")
  configure_file(\"${SHD_PACKAGING}/systemd/shd.service.in\" \"${SHD_GENERATED}/shd.service\" @ONLY)"
  COMPONENT runtime)
install(FILES ${SHD_GENERATED}/shd.service ${SHD_PACKAGING}/systemd/shd-control.socket
  ${SHD_PACKAGING}/systemd/shd-data.socket
  DESTINATION ${SHD_UNIT_DIR} COMPONENT runtime)
install(PROGRAMS ${SHD_PACKAGING}/shd-activate
  DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/shd COMPONENT runtime)
install(FILES ${SHD_PACKAGING}/sysusers.conf
  DESTINATION lib/sysusers.d RENAME shd.conf COMPONENT runtime)
install(FILES ${SHD_PACKAGING}/tmpfiles.conf
  DESTINATION lib/tmpfiles.d RENAME shd.conf COMPONENT runtime)
install(FILES ${SHD_PACKAGING}/udev.rules
  DESTINATION lib/udev/rules.d RENAME 60-shd.rules COMPONENT runtime)
install(FILES ${SHD_PACKAGING}/man/shd.8
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT runtime)
install(FILES docs/integration.md docs/protocols.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)

if(NOT SHD_TOOLS)
  return()
endif()

# shd_generated(FILE DIRECTORY COMPONENT PROGRAM ARGUMENT...): what a program of ours prints about
# itself, installed as DIRECTORY/FILE.
function(shd_generated file directory component program)
  set(output ${SHD_GENERATED}/${program}/${file})
  add_custom_command(OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${SHD_GENERATED}/${program}
    COMMAND ${program} ${ARGN} > ${output}
    DEPENDS ${program} VERBATIM)
  set_property(GLOBAL APPEND PROPERTY SHD_GENERATED_FILES ${output})
  install(FILES ${output} DESTINATION ${directory} COMPONENT ${component})
endfunction()

install(TARGETS shdtool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(FILES tools/tap/shd_line.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/shd COMPONENT runtime)
install(TARGETS mcusim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT dev)
shd_generated(shdtool ${CMAKE_INSTALL_DATADIR}/bash-completion/completions runtime
  shdtool completion bash)
shd_generated(_shdtool ${CMAKE_INSTALL_DATADIR}/zsh/site-functions runtime shdtool completion zsh)
shd_generated(mcusim ${CMAKE_INSTALL_DATADIR}/bash-completion/completions dev
  mcusim --completion bash)
shd_generated(_mcusim ${CMAKE_INSTALL_DATADIR}/zsh/site-functions dev mcusim --completion zsh)
shd_generated(shdtool.1 ${CMAKE_INSTALL_MANDIR}/man1 runtime shdtool --manual)
shd_generated(mcusim.1 ${CMAKE_INSTALL_MANDIR}/man1 dev mcusim --manual)
get_property(generated GLOBAL PROPERTY SHD_GENERATED_FILES)
add_custom_target(shd_generated_files ALL DEPENDS ${generated})

# The client library: find_package(shdclient), target shdclient::shdclient; pkg-config shdclient.
set(SHD_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/shdclient)
install(TARGETS shd_client EXPORT shdclient
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/shdclient COMPONENT dev)
install(EXPORT shdclient NAMESPACE shdclient:: FILE shdclient-config.cmake
  DESTINATION ${SHD_CMAKE_DIR} COMPONENT dev)
write_basic_package_version_file(${SHD_GENERATED}/shdclient-config-version.cmake
  COMPATIBILITY SameMajorVersion)
file(RELATIVE_PATH SHD_PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${SHD_PACKAGING}/shdclient.pc.in ${SHD_GENERATED}/shdclient.pc @ONLY)
install(FILES ${SHD_GENERATED}/shdclient-config-version.cmake
  DESTINATION ${SHD_CMAKE_DIR} COMPONENT dev)
install(FILES ${SHD_GENERATED}/shdclient.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME shd)
set(CPACK_PACKAGE_CONTACT "The shd maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package's own is the first line of its description
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME shd)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "systemd (>= 252), passwd")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "sensor-hub daemon
The one program that talks to the sensor microcontroller, with its units and
shdtool, the command line for bring-up.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${SHD_PACKAGING}/debian/postinst
  ${SHD_PACKAGING}/debian/prerm ${SHD_PACKAGING}/debian/postrm)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libshdclient-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION "client library of the sensor-hub daemon
Static library and headers for programs that talk to shd, and mcusim, the
simulated microcontroller to try them with.")
include(CPack)
