# Run by cpack when the files of the packages are in place: makes what dpkg's tools read or add.
set(ENV{DEB_HOST_ARCH} ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
set(control ${CPACK_WINDOWS_CONTROL_FOLDER})

# The symbols file: which version of the library a program needs, by the symbols that it uses.
file(GLOB_RECURSE library ${CPACK_TEMPORARY_DIRECTORY}/runtime/*.so.*)
file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
execute_process(COMMAND dpkg-gensymbols -q -plibwindows0 -v${CPACK_PACKAGE_VERSION} -e${library} -O${control}/symbols
    COMMAND_ERROR_IS_FATAL ANY)

file(GLOB_RECURSE archives ${CPACK_TEMPORARY_DIRECTORY}/development/*.a)
execute_process(COMMAND ${CPACK_WINDOWS_STRIP} --strip-debug ${archives} COMMAND_ERROR_IS_FATAL ANY)

# A cross compiler's libraries are in packages of their own (libc6-powerpc-cross). What is built here depends on the
# packages of the target instead, of at least the version that it was linked with.
execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE native OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT CPACK_DEBIAN_PACKAGE_ARCHITECTURE STREQUAL native)
    file(WRITE ${control}/shlibs.local "")
    foreach(package libc6 libgcc-s1 libstdc++6)
        set(cross ${package}-${CPACK_DEBIAN_PACKAGE_ARCHITECTURE}-cross)
        execute_process(COMMAND dpkg-query -W -f \${Version} ${cross}
            OUTPUT_VARIABLE version COMMAND_ERROR_IS_FATAL ANY)
        string(REGEX REPLACE "-.*" "" version ${version})
        execute_process(COMMAND dpkg-query --control-show ${cross} shlibs
            OUTPUT_VARIABLE shlibs COMMAND_ERROR_IS_FATAL ANY)
        string(REGEX REPLACE " lib[^ \n]*:[^\n]*" " ${package} (>= ${version})" shlibs "${shlibs}")
        file(APPEND ${control}/shlibs.local "${shlibs}")
    endforeach()
    set(SHLIBDEPS_EXECUTABLE dpkg-shlibdeps -L${control}/shlibs.local) # the command that CPack runs
endif()
