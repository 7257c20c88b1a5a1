# Debian packages, one for each component of cmake/Install.cmake and one for the debug symbols of each that has
# programs. script/package makes them; it says for which architecture.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libwindows)
set(CPACK_PACKAGE_CONTACT "libWindows developers <developers@libwindows.invalid>")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS # whatever umask the builder has
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development examples)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Objects of other architectures need the cross compiler's tools; readelf reads all.
set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY})
set(CPACK_WINDOWS_STRIP ${CMAKE_STRIP})
set(CPACK_WINDOWS_CONTROL_FOLDER ${PROJECT_BINARY_DIR}/control)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/PackageControl.cmake)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libwindows0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_DEBUGINFO_PACKAGE ON)
# The trigger runs ldconfig. The two scripts do not exist, of which CPack warns: that they are listed keeps it from
# writing its own, which would run ldconfig once more.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CPACK_WINDOWS_CONTROL_FOLDER}/symbols
    ${CPACK_WINDOWS_CONTROL_FOLDER}/triggers none/postinst none/postrm)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libwindows-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime) # of exactly this version

set(CPACK_DEBIAN_EXAMPLES_PACKAGE_NAME libwindows-examples)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SECTION net)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_EXAMPLES_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
if(CMAKE_CROSSCOMPILING)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES})
endif()
set(CPACK_COMPONENT_EXAMPLES_DEPENDS runtime)

set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "The library. The process that loads it supplies logger, service registry and clocks.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "Headers, a host for development as a static library, and files for find_package(Windows) and pkg-config.")
set(CPACK_COMPONENT_EXAMPLES_DESCRIPTION "A server and a client that exchange the lines of a file as frames over TCP.")
include(CPack)
