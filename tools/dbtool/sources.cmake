# The sources of dbtool's commands (all but main()), shared by the program and
# the fuzz target of its argument parser and CSV reader.
set(DBTOOL_DIR ${CMAKE_CURRENT_LIST_DIR})
set(DBTOOL_CORE_SOURCES
    ${DBTOOL_DIR}/dbtool.h ${DBTOOL_DIR}/dispatch.cpp
    ${DBTOOL_DIR}/tablefile.h ${DBTOOL_DIR}/tablefile.cpp
    ${DBTOOL_DIR}/celltext.h ${DBTOOL_DIR}/celltext.cpp
    ${DBTOOL_DIR}/cmd_info.cpp ${DBTOOL_DIR}/cmd_dump.cpp ${DBTOOL_DIR}/cmd_import.cpp
    ${DBTOOL_DIR}/cmd_check.cpp ${DBTOOL_DIR}/cmd_price.cpp)
