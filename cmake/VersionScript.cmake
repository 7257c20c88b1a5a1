# windows_version_script(TARGET LIST): lets the shared library TARGET export what the text file LIST names and
# nothing else. The file holds one C++ signature a line; the linker compares it with each demangled symbol.
#
#   extern "C" int Name(...)      -> the C name
#   data TYPE NAME                -> a C++ name when it is inside a class, otherwise the C name
#   optional-weak SIGNATURE       -> as SIGNATURE
#   SIGNATURE                     -> exactly this; std::string and va_list, spelt otherwise in each ABI, become
#                                    patterns (the linker's patterns know no blanks and no brackets)
function(windows_version_script target list)
    file(STRINGS ${list} lines REGEX "^[^#]")
    set(c "")
    set(cpp "")
    foreach(line IN LISTS lines)
        string(REGEX REPLACE "^optional-weak " "" line "${line}")
        if(line MATCHES "^extern \"C\" [^(]*[ *]([A-Za-z0-9_]+)\\(")
            string(APPEND c "    ${CMAKE_MATCH_1};\n")
        elseif(line MATCHES "^data .* ([A-Za-z0-9_:]+)$")
            set(name ${CMAKE_MATCH_1})
            if(name MATCHES "::")
                string(APPEND cpp "        \"${name}\";\n")
            else()
                string(APPEND c "    ${name};\n")
            endif()
        elseif(line MATCHES "std::string|va_list")
            string(REGEX REPLACE "[^A-Za-z0-9_:]" "?" pattern "${line}")
            string(REPLACE "std::string" "std::*basic_string*" pattern "${pattern}")
            string(REPLACE "va_list" "*" pattern "${pattern}")
            string(APPEND cpp "        ${pattern};\n")
        else()
            string(APPEND cpp "        \"${line}\";\n")
        endif()
    endforeach()

    set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
    file(CONFIGURE OUTPUT ${script} @ONLY CONTENT
"{
global:
@c@    extern \"C++\" {
@cpp@    };
local:
    *;
};
")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${script})
    target_link_options(${target} PRIVATE LINKER:--version-script=${script})
endfunction()
