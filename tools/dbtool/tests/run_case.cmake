# One dbtool run over the checked-in fixtures in data/ (the working directory):
#   -DTOOL=dbtool -DDATA=data dir -DARGS=arg|arg|... -DRC=expected exit code
#   [-DOUT=expected stdout file] [-DERR=regex stderr must match]
#   [-DMASK=regex of stdout parts that vary (sizes in memory); each becomes *]
string(REPLACE "|" ";" args "${ARGS}")
execute_process(COMMAND ${TOOL} ${args} WORKING_DIRECTORY ${DATA}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc STREQUAL RC)
    message(FATAL_ERROR "dbtool ${args}: exit ${rc}, expected ${RC}\nstdout:\n${out}\nstderr:\n${err}")
endif()
if(DEFINED ERR AND NOT err MATCHES "${ERR}")
    message(FATAL_ERROR "dbtool ${args}: stderr does not match '${ERR}':\n${err}")
endif()
if(DEFINED MASK)
    string(REGEX REPLACE "${MASK}" "*" out "${out}")
endif()
if(DEFINED OUT)
    file(READ ${OUT} expected)
    if(NOT out STREQUAL expected)
        file(WRITE ${OUT}.actual "${out}")
        message(FATAL_ERROR "dbtool ${args}: stdout differs from ${OUT} (see ${OUT}.actual):\n${out}")
    endif()
endif()
