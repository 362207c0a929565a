# "cpack -G DEB" in a build folder with the prefix /usr (preset "package") makes the packages qixxwatch and
# qixxwatch-softcard. scripts/packages tries them out.

file(READ packaging/debian/maintainer CPACK_PACKAGE_CONTACT)
string(STRIP "${CPACK_PACKAGE_CONTACT}" CPACK_PACKAGE_CONTACT)
set(CPACK_PACKAGE_VENDOR Tessaly)
set(CPACK_COMPONENTS_ALL service softcard)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# What Debian wants of the files of a package, before it is closed.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/PackagesFiles.cmake)
set(CPACK_QIXX_SOURCE ${PROJECT_SOURCE_DIR})

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME qixxwatch)
set(CPACK_COMPONENT_SERVICE_DESCRIPTION
"run commands when a smart card is inserted or removed
A background service that loads a PKCS#11 library, polls it for slot events
and runs the commands that the administrator configured: lock the screen
when the card is pulled, start a program, write the card holder's logon
name into a configuration file.

The package holds a bridge to the cards that OpenSC or any other standard
PKCS#11 module can read.")
# The bridge loads these at run time, so that no tool finds them.
set(CPACK_DEBIAN_SERVICE_PACKAGE_RECOMMENDS "opensc-pkcs11, pcscd")
set(CPACK_DEBIAN_SERVICE_PACKAGE_SUGGESTS "opensc, qixxwatch-softcard")
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/conffiles)

set(CPACK_DEBIAN_SOFTCARD_PACKAGE_NAME qixxwatch-softcard)
set(CPACK_COMPONENT_SOFTCARD_DESCRIPTION
"PKCS#11 module whose readers and cards are folders
A soft card, for trying out a configuration of the smart-card watch service
without hardware. It holds certificates and no keys.

The program qixxwatch-card puts a card into a reader and takes it out.")
set(CPACK_DEBIAN_SOFTCARD_PACKAGE_RECOMMENDS qixxwatch)

include(CPack)
