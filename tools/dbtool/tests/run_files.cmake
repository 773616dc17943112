# dbtool commands that write files, in a scratch directory:
#   -DTOOL=dbtool -DDATA=fixtures -DWORK=scratch directory
# A table file -> CSV -> table file -> CSV round trip is byte-identical; a
# failed command leaves no output and an existing output as it was.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(dbtool expected_rc)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C ${TOOL} ${ARGN} -q
                    WORKING_DIRECTORY ${WORK}
                    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc STREQUAL expected_rc)
        message(FATAL_ERROR "dbtool ${ARGN}: exit ${rc}, expected ${expected_rc}\n${out}\n${err}")
    endif()
    set(last_out "${out}" PARENT_SCOPE)
    set(last_err "${err}" PARENT_SCOPE)
endfunction()

function(same a b)
    get_filename_component(a ${a} ABSOLUTE BASE_DIR ${WORK})
    get_filename_component(b ${b} ABSOLUTE BASE_DIR ${WORK})
    file(SHA256 ${a} ha)
    file(SHA256 ${b} hb)
    if(NOT ha STREQUAL hb)
        message(FATAL_ERROR "${a} and ${b} differ")
    endif()
endfunction()

# Round trip through CSV, plain and gzip, and through JSON lines.
dbtool(0 export ${DATA}/tables/quotes.gz --to a.csv)
dbtool(0 import a.csv --schema ${DATA}/schema.json --to b.gz)
dbtool(0 export b.gz --to b.csv)
same(a.csv b.csv)
dbtool(0 import b.csv --schema ${DATA}/schema.json --to c --plain)
same(c ${DATA}/tables/quotes)
dbtool(0 export c --to c.jsonl)
dbtool(0 export ${DATA}/tables/quotes --to d.jsonl)
same(c.jsonl d.jsonl)

# Re-encoding keeps every byte of the rows; the source is never the target.
dbtool(0 convert ${DATA}/tables/quotes.gz --to e --plain)
same(e ${DATA}/tables/quotes)
dbtool(1 convert e --to e)

# Conversion between types through the library's column conversion.
dbtool(0 convert e --to narrow.gz --schema ${DATA}/schema-narrow.json)
dbtool(0 dump narrow.gz --format csv --limit 2 --columns id,price,volume)
if(NOT last_out STREQUAL "id,price,volume\n1,100,0\n2,100.37,10\n")
    message(FATAL_ERROR "converted columns:\n${last_out}")
endif()

# Failures leave an existing output untouched and create no new one.
file(WRITE ${WORK}/keep.csv "precious\n")
dbtool(2 export ${DATA}/truncated --to keep.csv)
dbtool(2 import ${DATA}/bad.csv --schema ${DATA}/schema.json --to keep.csv)
file(READ ${WORK}/keep.csv kept)
if(NOT kept STREQUAL "precious\n")
    message(FATAL_ERROR "a failed command changed an existing output")
endif()
dbtool(2 import ${DATA}/bad.csv --schema ${DATA}/schema.json --to none)
if(NOT last_err MATCHES "bad.csv:3: column instrument")
    message(FATAL_ERROR "the first bad row is not named: ${last_err}")
endif()
# --skip-bad keeps the good rows; quoting and empty text survive.
dbtool(0 import ${DATA}/bad.csv --schema ${DATA}/schema.json --to good --skip-bad)
if(NOT last_err MATCHES "bad.csv:4: column price: 'abc' is not a valid Decimal: skipped"
   OR NOT last_err MATCHES "bad.csv:7: the key 1 is already on line 2: skipped")
    message(FATAL_ERROR "a skipped row is not reported: ${last_err}")
endif()
dbtool(0 dump good --format csv --columns id,instrument,side)
if(NOT last_out STREQUAL "id,instrument,side\n1,ACME,B\n5,\"DYNA, Inc\",\"\"\n")
    message(FATAL_ERROR "imported rows:\n${last_out}")
endif()

# Unicode text passes unchanged, whatever the locale.
file(WRITE ${WORK}/ru.csv "id,instrument,comment\n7,Сбер,\"цена, руб.\"\n")
dbtool(0 import ru.csv --schema ${DATA}/schema.json --to ru)
dbtool(0 dump ru --format csv --columns id,instrument,comment)
file(READ ${WORK}/ru.csv ru)
if(NOT last_out STREQUAL ru)
    message(FATAL_ERROR "Unicode text changed:\n${last_out}")
endif()

dbtool(3 export ${DATA}/tables/quotes --to missing/dir/out.csv)
file(GLOB left ${WORK}/none* ${WORK}/missing*)
if(left)
    message(FATAL_ERROR "a failed command left files behind: ${left}")
endif()
