# Warnings and strict Qt defines for every target of ours.
function(quorvex_target_defaults target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                             -Wno-missing-field-initializers)
    get_target_property(_libs ${target} LINK_LIBRARIES)
    if(_libs MATCHES "Qt5::")
        target_compile_definitions(${target} PRIVATE QT_STRICT_ITERATORS QT_NO_CAST_TO_ASCII
                                                     QT_NO_URL_CAST_FROM_STRING QT_USE_QSTRINGBUILDER)
    endif()
    if(QUORVEX_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=address,undefined)
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
        list(APPEND _env "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/support/lsan.supp")
    endif()
    set_tests_properties(${T_NAME} PROPERTIES
        ENVIRONMENT "${_env}"
        TIMEOUT ${T_TIMEOUT}
        LABELS "${T_LABELS}")
endfunction()
