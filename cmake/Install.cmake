# What `cmake --install` copies, in three components: runtime (the library), development (what compiling and linking
# against it needs) and examples. Nothing that is installed knows its prefix, but for
# the gdb printers, so the tree may be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
set(headers ${CMAKE_INSTALL_INCLUDEDIR}/libwindows) # a folder of its own: "host" is a name that others may have
set(config ${CMAKE_INSTALL_LIBDIR}/cmake/Windows)

target_include_directories(Windows INTERFACE $<INSTALL_INTERFACE:${headers}>)
install(TARGETS Windows EXPORT WindowsTargets
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY Windows host DESTINATION ${headers} COMPONENT development
    FILES_MATCHING PATTERN "*.h" PATTERN internal EXCLUDE)

if(TARGET WindowsReferenceHost)
    set_target_properties(WindowsReferenceHost PROPERTIES EXPORT_NAME ReferenceHost)
    install(TARGETS WindowsReferenceHost EXPORT WindowsTargets ARCHIVE COMPONENT development)
    install(FILES reference_host/reference_host.h DESTINATION ${headers}/reference_host COMPONENT development)
endif()
# gdb looks for it by the library's whole path, so this one does know the prefix; a moved tree loads it by hand.
install(FILES tools/gdb/windows_printers.py RENAME libWindows.so.0-gdb.py COMPONENT development
    DESTINATION ${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR})
install(PROGRAMS tools/check-host TYPE BIN COMPONENT development)
install(FILES abi/imports.txt DESTINATION ${CMAKE_INSTALL_DATADIR}/libwindows COMPONENT development)
if(TARGET frame_server)
    install(TARGETS frame_server frame_client RUNTIME COMPONENT examples)
endif()

# find_package(Windows): any version of the same minor number will do, as long as the major one is 0.
install(EXPORT WindowsTargets NAMESPACE Windows:: DESTINATION ${config} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/WindowsConfigVersion.cmake COMPATIBILITY SameMinorVersion)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/WindowsConfig.cmake @ONLY CONTENT
"include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(\${CMAKE_CURRENT_LIST_DIR}/WindowsTargets.cmake)
")
install(FILES ${PROJECT_BINARY_DIR}/WindowsConfig.cmake ${PROJECT_BINARY_DIR}/WindowsConfigVersion.cmake
    DESTINATION ${config} COMPONENT development)

# pkg-config: libwindows, or libwindows-reference-host for both, in the order in which the linker needs them.
file(RELATIVE_PATH up /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
function(windows_pkg_config name description libraries)
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/${name}.pc @ONLY CONTENT
"prefix=\${pcfiledir}/@up@
libdir=\${prefix}/@CMAKE_INSTALL_LIBDIR@
includedir=\${prefix}/@headers@

Name: @name@
Description: @description@
Version: @PROJECT_VERSION@
Cflags: -I\${includedir} -pthread
Libs: -L\${libdir} @libraries@ -pthread
")
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
windows_pkg_config(libwindows "${PROJECT_DESCRIPTION}" "-lWindows")
if(TARGET WindowsReferenceHost)
    windows_pkg_config(libwindows-reference-host "libwindows together with its host for development"
        "-lWindows -lWindowsReferenceHost")
endif()
