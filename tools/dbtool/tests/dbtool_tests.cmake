# dbtool's CTest cases over the fixtures in data/: each command's output
# against a checked-in expected file (expected/), every exit code, damaged
# files, and the commands that write files (run_files.cmake).
set(dbtool_tests_dir ${CMAKE_CURRENT_LIST_DIR})

# dbtool_case(<name> <exit code> <args separated by |> [OUT file] [ERR regex] [MASK regex])
function(dbtool_case name rc args)
    cmake_parse_arguments(CASE "" "OUT;ERR;MASK" "" ${ARGN})
    set(defines -DTOOL=$<TARGET_FILE:dbtool> -DDATA=${dbtool_tests_dir}/data -DRC=${rc}
                "-DARGS=${args}")
    if(CASE_OUT)
        list(APPEND defines -DOUT=${dbtool_tests_dir}/expected/${CASE_OUT})
    endif()
    if(CASE_ERR)
        list(APPEND defines "-DERR=${CASE_ERR}")
    endif()
    if(CASE_MASK)
        list(APPEND defines "-DMASK=${CASE_MASK}")
    endif()
    add_test(NAME dbtool_${name} COMMAND ${CMAKE_COMMAND} ${defines} -P
                                         ${dbtool_tests_dir}/run_case.cmake)
    set_tests_properties(dbtool_${name} PROPERTIES TIMEOUT 120)
endfunction()

# Help: every command listed; each command's own options.
dbtool_case(help 0 "help" OUT help.out)
dbtool_case(help_dump 0 "help|dump" OUT help_dump.out)
dbtool_case(help_option 0 "create|--help" OUT help_create.out)

# Normal output of each command.
set(memory "in memory [0-9]+|\"memoryUsage\": [0-9]+")
dbtool_case(info 0 "info|tables/quotes.gz|tables/quotes" OUT info.out MASK "${memory}")
dbtool_case(info_json 0 "info|--json|tables/quotes" OUT info.json MASK "${memory}")
dbtool_case(info_dir 0 "info|tables" OUT info_dir.out)
dbtool_case(describe 0 "describe|tables/quotes" OUT describe.out)
dbtool_case(dump_text 0 "dump|tables/quotes.gz|--limit|6" OUT dump_text.out)
dbtool_case(dump_csv 0 "dump|tables/quotes|--format|csv|--columns|id,price,boards,comment|--where|price>=102.5"
            OUT dump_csv.out)
dbtool_case(dump_sort 0 "dump|tables/quotes|--format|jsonl|--sort|quantity:desc|--offset|2|--limit|3"
            OUT dump_sort.out)
dbtool_case(dump_tsv 0 "dump|tables/quotes|--format|tsv|--where|comment=|--columns|id,side,comment|--limit|3"
            OUT dump_tsv.out)
dbtool_case(stats 0 "stats|tables/quotes.gz" OUT stats.out)
dbtool_case(verify 0 "verify|tables/quotes|tables/quotes.gz" OUT verify.out)
dbtool_case(price 0 "price|put|--spot|100|--strike|105|--days|30|--price|6.2" OUT price.out)
dbtool_case(price_table 2 "price|--table|options.csv" OUT price_table.out
            ERR "options.csv:4: spot, strike and days must be positive")

# Damaged and foreign files: a clear error naming the file, exit 2; a dump
# shows the rows before the break.
dbtool_case(dump_truncated 2 "dump|truncated|--columns|id,instrument" OUT dump_truncated.out
            ERR "truncated: row 5 at offset 2573: the data ends after 4 of 20 rows")
dbtool_case(verify_truncated 2 "verify|truncated" ERR "truncated: row 5 at offset 2573")
dbtool_case(verify_trailing 2 "verify|trailing" ERR "offset 11085: data after the last of 20 rows")
dbtool_case(verify_magic 2 "verify|badmagic" ERR "badmagic: not a table file")
dbtool_case(verify_gzip 2 "verify|damaged.gz" ERR "damaged.gz: .*data error")
dbtool_case(info_foreign 2 "info|tables/notes.txt" ERR "notes.txt: not a table file \\(magic 0x6e6f7420\\)")
dbtool_case(missing 2 "dump|tables/nosuch" ERR "tables/nosuch: no such file")

# Usage errors say what is wrong, exit 1.
dbtool_case(usage_limit 1 "dump|tables/quotes|--limit|-1" ERR "--limit: '-1' is not a whole number")
dbtool_case(usage_rows 1 "create|.|--rows|abc" ERR "--rows: 'abc' is not a whole number")
dbtool_case(usage_option 1 "info|--bogus|tables/quotes" ERR "Unknown option 'bogus'")
dbtool_case(usage_column 1 "dump|tables/quotes|--sort|nosuch" ERR "has no column 'nosuch'; its columns: id,")
dbtool_case(usage_where 1 "dump|tables/quotes|--where|price>x" ERR "column price: 'x' is not a valid Decimal")
dbtool_case(usage_command 1 "frobnicate" ERR "unknown command 'frobnicate'")

add_test(NAME dbtool_files COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:dbtool>
                                   -DDATA=${dbtool_tests_dir}/data
                                   -DWORK=${CMAKE_CURRENT_BINARY_DIR}/dbtool_files
                                   -P ${dbtool_tests_dir}/run_files.cmake)
set_tests_properties(dbtool_files PROPERTIES TIMEOUT 120)

# The text forms of cells and the CSV reader, unit by unit.
add_executable(tst_dbtool_celltext ${dbtool_tests_dir}/tst_celltext.cpp)
target_link_libraries(tst_dbtool_celltext PRIVATE dbtool_core Qt5::Test)
target_compile_options(tst_dbtool_celltext PRIVATE ${DATABASE_WARNINGS})
add_test(NAME tst_dbtool_celltext COMMAND tst_dbtool_celltext)
set_tests_properties(tst_dbtool_celltext PROPERTIES TIMEOUT 120)
