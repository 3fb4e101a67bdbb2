# The Debian package: `cpack -G DEB` in the build tree writes scriva-pkcs11_<version>_<arch>.deb.
# Everything of the project lives under one prefix, /opt/scriva; only the browsers' manifest
# folders and the Debian documentation lie outside it.
set(SCRIVA_PACKAGE_PREFIX /opt/scriva CACHE PATH "Prefix of the Debian package")

set(debFiles ${CMAKE_SOURCE_DIR}/packaging/deb)
set(debStage ${CMAKE_BINARY_DIR}/packaging)
set(debVersion ${PROJECT_VERSION}-1)
string(TIMESTAMP changelogDate "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${debStage}/changelog.Debian "scriva-pkcs11 (${debVersion}) unstable; urgency=medium

  * Release ${PROJECT_VERSION} of ScrivaPkcs11.

 -- Corvant <support@corvant.com>  ${changelogDate}
")
# Debian wants the change log compressed without a time stamp in the gzip header.
execute_process(COMMAND gzip -9nf ${debStage}/changelog.Debian)
install(FILES ${debFiles}/copyright ${debStage}/changelog.Debian.gz
        DESTINATION /usr/share/doc/scriva-pkcs11 COMPONENT system EXCLUDE_FROM_ALL)
install(FILES ${debFiles}/lintian-overrides DESTINATION /usr/share/lintian/overrides
        RENAME scriva-pkcs11 COMPONENT system EXCLUDE_FROM_ALL)

set(CPACK_PACKAGE_NAME scriva-pkcs11)
set(CPACK_PACKAGE_VENDOR Corvant)
set(CPACK_PACKAGE_CONTACT "Corvant <support@corvant.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "smart cards and USB tokens for web applications")
set(CPACK_PACKAGE_DESCRIPTION "ScrivaPkcs11 is started by the web browser on behalf of a web
application (through the Scriva browser extension) and works with the user's
token through its PKCS#11 module: it lists slots, reads certificates,
generates key pairs with certificate requests and stores certificates.
Every request is signed by the application's server and checked against
built-in trust anchors.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${SCRIVA_PACKAGE_PREFIX})
# Installed with DESTDIR, so that CMAKE_INSTALL_PREFIX is the real prefix when the manifests are
# written (they name the installed program).
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX ${SCRIVA_PACKAGE_PREFIX})
set(CPACK_STRIP_FILES ON)

# The host and its catalogues (no component), the browser parts, the server library, and the files
# outside the prefix.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL Unspecified browser server system)

set(CPACK_DEBIAN_PACKAGE_NAME scriva-pkcs11)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "chromium | firefox-esr | google-chrome-stable | brave-browser | vivaldi-stable | microsoft-edge-stable")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "opensc-pkcs11, python3-cryptography, python3-lxml")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The manifests in /etc are configuration: an administrator's edits survive upgrades.
set(conffiles "")
foreach(dir ${SCRIVA_CHROMIUM_SYSTEM_MANIFEST_DIRS})
  string(APPEND conffiles "${dir}/${SCRIVA_HOST_NAME}.json\n")
endforeach()
file(WRITE ${debStage}/conffiles "${conffiles}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${debStage}/conffiles)

include(CPack)
