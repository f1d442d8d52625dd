# The packages: the target "package" of the preset release, which is configured for /usr.

foreach(component ruvelserver ruvelcontrol)
  set(documents ${CMAKE_INSTALL_DATADIR}/doc/${component})
  install(FILES debian/copyright DESTINATION ${documents} COMPONENT ${component})
  ruvel_install_gzipped(${component} ${documents} debian/changelog ../CHANGELOG.md)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ruvelserver)
set(CPACK_PACKAGE_VENDOR "the RuvelServer authors")
set(CPACK_PACKAGE_CONTACT "the RuvelServer authors <ruvelserver@packages.invalid>")
set(CPACK_COMPONENTS_ALL ruvelserver ruvelcontrol)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
# Some files go to absolute places below /etc.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_DEBIAN_RUVELSERVER_PACKAGE_NAME ruvelserver)
set(CPACK_DEBIAN_RUVELSERVER_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RUVELSERVER_DESCRIPTION "runs commands and moves files for remote users (daemon)
RuvelServer runs commands on behalf of remote users, as the user that each
of them is, delivers output and exit code, and moves files. It needs no
configuration, and serves every client of its protocol from V1.0 to V1.9.
.
What is sent, passwords included, is not encrypted: outside a trusted network
let clients come in through OpenSSH. So the daemon is installed but not
enabled.")
set(CPACK_DEBIAN_RUVELSERVER_PACKAGE_DEPENDS "libpam-runtime, libpam-modules, init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_RUVELSERVER_PACKAGE_RECOMMENDS "iproute2, ksh")
set(CPACK_DEBIAN_RUVELSERVER_PACKAGE_SUGGESTS "nftables, openssh-server, ruvelcontrol, socat")
set(CPACK_DEBIAN_RUVELSERVER_PACKAGE_CONTROL_EXTRA
  "${CMAKE_CURRENT_SOURCE_DIR}/debian/ruvelserver/conffiles"
  "${CMAKE_CURRENT_SOURCE_DIR}/debian/ruvelserver/postinst"
  "${CMAKE_CURRENT_SOURCE_DIR}/debian/ruvelserver/prerm"
  "${CMAKE_CURRENT_SOURCE_DIR}/debian/ruvelserver/postrm")

set(CPACK_DEBIAN_RUVELCONTROL_PACKAGE_NAME ruvelcontrol)
set(CPACK_DEBIAN_RUVELCONTROL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RUVELCONTROL_DESCRIPTION "runs commands and moves files on machines with RuvelServer (client)
RuvelControl runs commands through a RuvelServer on another machine, with
their input, output and exit code as if they ran here, lists and ends them,
and moves files. ruvelsh is the same in the form of a remote shell, for
rsync, git, tar and fleet tools.")
set(CPACK_DEBIAN_RUVELCONTROL_PACKAGE_SUGGESTS "openssh-client, ruvelserver")

include(CPack)
