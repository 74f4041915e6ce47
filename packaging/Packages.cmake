# The Debian packages that `packaging/build-deb` makes of the components.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME tarnwell)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The Tarnwell developers")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# A package with a library says so, and has the loader look for it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Packages have no scripts of ours that run when they are installed or removed. The service is started by the message bus, so there
# is no unit to enable; the bus and the managers of sessions find new files by themselves; and what is a person's (the
# documents, the store, the list of libraries, the caches) is never a package's to touch, not even when it is purged.

set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME tarnwell)
set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS shared-mime-info)
set(CPACK_DEBIAN_SERVICE_PACKAGE_RECOMMENDS "default-dbus-session-bus | dbus-session-bus")
set(CPACK_COMPONENT_SERVICE_DESCRIPTION "Documents of this device in one place
Shows a person's own documents folder and one library for each installed
application that keeps documents. Every file and folder has an identifier
that lasts when it is renamed, moved or saved anew.

This package has the program tarnwell, the service that other programs ask
on the session's message bus, the manual, and completions for bash, zsh and
fish.")

set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME libtarnwell-client0)
set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_CLIENT_PACKAGE_RECOMMENDS tarnwell)
set(CPACK_COMPONENT_CLIENT_DESCRIPTION "Documents of this device in one place: library for programs
With this library a program asks the service of the package tarnwell for the
documents of this device, and is told what changes.")

set(CPACK_DEBIAN_CLIENT-DEV_PACKAGE_NAME libtarnwell-client-dev)
set(CPACK_DEBIAN_CLIENT-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_CLIENT-DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_CLIENT-DEV_PACKAGE_DEPENDS "libtarnwell-client0 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_CLIENT-DEV_DESCRIPTION "Documents of this device in one place: to build programs
The headers of libtarnwell-client0, and what CMake and pkg-config need to
build programs with it.")

set(CPACK_COMPONENTS_ALL service client client-dev)
include(CPack)
