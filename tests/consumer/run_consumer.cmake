# Installs the freshly built library into a scratch prefix, then builds and
# runs a tiny consumer against it twice: through find_package(Database CONFIG)
# and through pkg-config. Run as a CTest script (cmake -P).
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
set(ENV{LD_LIBRARY_PATH} "${prefix}/lib:${prefix}/lib/x86_64-linux-gnu:$ENV{LD_LIBRARY_PATH}")
run(${WORK_DIR}/build/consumer)

# The package accepts a request for an earlier version of its major version
# and refuses the next major version.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/build_same
    -DCMAKE_PREFIX_PATH=${prefix} -DDATABASE_REQUESTED_VERSION=${VERSION_MAJOR}.0)
math(EXPR next_major "${VERSION_MAJOR} + 1")
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/build_next
    -DCMAKE_PREFIX_PATH=${prefix} -DDATABASE_REQUESTED_VERSION=${next_major}.0
    RESULT_VARIABLE rc OUTPUT_QUIET ERROR_QUIET)
if(rc EQUAL 0)
    message(FATAL_ERROR "the package accepted a request for version ${next_major}.0")
endif()

# pkg-config: compile the same source with the flags that database.pc gives.
find_program(PKG_CONFIG pkg-config)
find_program(CXX_COMPILER NAMES c++ g++)
if(PKG_CONFIG AND CXX_COMPILER)
    file(GLOB_RECURSE pcfile ${prefix}/database.pc)
    get_filename_component(pcdir "${pcfile}" DIRECTORY)
    set(ENV{PKG_CONFIG_PATH} "${pcdir}")
    execute_process(COMMAND ${PKG_CONFIG} --cflags --libs database
        OUTPUT_VARIABLE flags RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "pkg-config does not know the database package")
    endif()
    separate_arguments(flags UNIX_COMMAND "${flags}")
    # No -fPIC of our own: the .pc file must carry what Qt demands.
    run(${CXX_COMPILER} -std=c++17 ${SOURCE_DIR}/tests/consumer/main.cpp
        -o ${WORK_DIR}/consumer_pc ${flags})
    run(${WORK_DIR}/consumer_pc)
endif()
