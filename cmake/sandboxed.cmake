# Tests that run in a sandbox, through CTest: what the folders tests/ and torture/ share.

set(sandbox ${PROJECT_SOURCE_DIR}/tests/support/sandbox --keep ${CMAKE_BINARY_DIR})

# zevobw_add_test(NAME TIMEOUT LABELS COMMAND...): a CTest test; exit status 77 counts as skipped.
function(zevobw_add_test name timeout labels)
    add_test(NAME ${name} COMMAND ${ARGN})
    set_tests_properties(${name} PROPERTIES TIMEOUT ${timeout} SKIP_RETURN_CODE 77
        LABELS "${labels}"
        ENVIRONMENT "UBSAN_OPTIONS=print_stacktrace=1;TSAN_OPTIONS=halt_on_error=1"
        ENVIRONMENT_MODIFICATION
        "ZEVOBW_TOOL=set:${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/zevobandwidth")
endfunction()

# zevobw_sandboxed(NAME COMMAND...): the common end of the functions that define a test; reads their
# arguments where they left them.
macro(zevobw_sandboxed name)
    set(options)
    if(arg_UIDS)
        list(APPEND options --uids)
    endif()
    if(arg_DISK)
        list(APPEND options --disk)
    endif()
    if(arg_THREADS)
        list(APPEND arg_LABELS threads)
    endif()
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 120)
    endif()
    zevobw_add_test(${name} ${arg_TIMEOUT} "${arg_LABELS}" ${sandbox} ${options} ${ARGN})
    set_tests_properties(${name} PROPERTIES RUN_SERIAL "${arg_SERIAL}")
endmacro()
