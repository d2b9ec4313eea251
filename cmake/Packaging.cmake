# The Debian package (`make package`): the daemon, the stand-in host agent
# that runs it as a service, the magic database at its fixed path, the
# sample configuration under /etc/corvid/outpost (conffiles) and the systemd
# unit. The maintainer scripts make the directories the daemon writes, stop
# the service on removal and leave no kernel audit rule behind.
set(CORVID_ETC /etc/corvid/outpost)

install(FILES config/corvid-edr.json config/logging.properties config/fim_manifest.json
              config/ioc_manifest.json
        DESTINATION ${CORVID_ETC} COMPONENT corvid)
install(FILES packaging/corvid-outpost.service DESTINATION lib/systemd/system COMPONENT corvid)
install(FILES README.md DESTINATION share/doc/corvid-edr COMPONENT corvid)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME corvid-edr)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "corvid-edr maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Endpoint detection and response daemon on the Linux kernel audit stream")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The debug information stays in the build tree.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "auditd, audispd-plugins")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/debian/conffiles ${CMAKE_SOURCE_DIR}/packaging/debian/postinst
    ${CMAKE_SOURCE_DIR}/packaging/debian/prerm ${CMAKE_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Only what the host needs: no test helpers, no benchmarks.
set(CPACK_COMPONENTS_ALL corvid)
set(CPACK_DEB_COMPONENT_INSTALL OFF)
set(CPACK_WARN_ON_ABSOLUTE_INSTALL_DESTINATION OFF)
include(CPack)
