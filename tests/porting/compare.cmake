# Runs PROGRAM, under EMULATOR if one is given, and compares what it prints with the file EXPECTED.
execute_process(COMMAND ${EMULATOR} ${PROGRAM} OUTPUT_VARIABLE printed RESULT_VARIABLE status)
file(READ ${EXPECTED} expected)
if(NOT status EQUAL 0 OR NOT printed STREQUAL expected)
    message(FATAL_ERROR "status ${status}, printed:\n${printed}\nexpected:\n${expected}")
endif()
