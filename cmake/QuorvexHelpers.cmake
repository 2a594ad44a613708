# Warnings and strict Qt defines for every target of ours.
function(quorvex_target_defaults target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                             -Wno-missing-field-initializers)
    get_target_property(_libs ${target} LINK_LIBRARIES)
    if(_libs MATCHES "Qt5::")
        target_compile_definitions(${target} PRIVATE QT_STRICT_ITERATORS QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII
                                                     QT_NO_URL_CAST_FROM_STRING QT_USE_QSTRINGBUILDER)
    endif()
    if(QUORVEX_SANITIZE)
        # Undefined behaviour is an error, not a line in the output: the test fails.
        target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=undefined
                                                 -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=address,undefined)
    endif()
    if(QUORVEX_TSAN)
        target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=thread)
    endif()
endfunction()

# quorvex_add_test(NAME name SOURCES ... LIBS ... [QT] [LABELS ...])
# QT: link the shared test main that creates a QApplication (offscreen); otherwise gtest_main.
function(quorvex_add_test)
    cmake_parse_arguments(T "QT" "NAME;TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
    add_executable(${T_NAME} ${T_SOURCES})
    if(T_QT)
        target_link_libraries(${T_NAME} PRIVATE quorvex_testmain ${T_LIBS})
    else()
        target_link_libraries(${T_NAME} PRIVATE GTest::gtest GTest::gtest_main ${T_LIBS})
    endif()
    quorvex_target_defaults(${T_NAME})
    target_compile_definitions(${T_NAME} PRIVATE
        QUORVEX_TEST_DATA_DIR="${PROJECT_SOURCE_DIR}/tests/data"
        QUORVEX_TEST_BINARY_DIR="${CMAKE_CURRENT_BINARY_DIR}")
    add_test(NAME ${T_NAME} COMMAND ${T_NAME})
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 600)
    endif()
    set(_env "QT_QPA_PLATFORM=offscreen;QUORVEX_TEST_DATA_DIR=${PROJECT_SOURCE_DIR}/tests/data")
    if(QUORVEX_SANITIZE)
        list(APPEND _env "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/support/lsan.supp:print_suppressions=0"
                         "ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1"
                         "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
    endif()
    if(QUORVEX_TSAN)
        list(APPEND _env "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:ignore_noninstrumented_modules=1:suppressions=${PROJECT_SOURCE_DIR}/tests/support/tsan.supp")
    endif()
    set_tests_properties(${T_NAME} PROPERTIES
        ENVIRONMENT "${_env}"
        TIMEOUT ${T_TIMEOUT}
        LABELS "${T_LABELS}")
endfunction()
