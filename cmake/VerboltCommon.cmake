# One interface target carries the language standard, the warnings and the Qt defines for all
# of our own code; third-party headers come in as SYSTEM includes and stay out of -Werror.
add_library(verbolt_common INTERFACE)
target_compile_features(verbolt_common INTERFACE cxx_std_20)
target_compile_options(verbolt_common INTERFACE -Wall -Wextra -Wpedantic -Werror)
target_compile_definitions(verbolt_common INTERFACE
    QT_NO_CAST_FROM_ASCII
    QT_NO_CAST_TO_ASCII
    QT_NO_URL_CAST_FROM_STRING
    QT_NO_NARROWING_CONVERSIONS_IN_CONNECT
    QT_USE_QSTRINGBUILDER)

option(VERBOLT_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
if(VERBOLT_SANITIZE)
    target_compile_options(verbolt_common INTERFACE -fsanitize=address,undefined -fno-omit-frame-pointer)
    target_link_options(verbolt_common INTERFACE -fsanitize=address,undefined)
endif()

# verbolt_add_test(<name> SOURCES <files...> LIBS <targets...>)
# One QtTest executable registered with CTest, run on the offscreen platform.
function(verbolt_add_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE verbolt_common Qt6::Test ${ARG_LIBS})
    target_compile_definitions(${name} PRIVATE VERBOLT_TEST_DATA="${CMAKE_CURRENT_SOURCE_DIR}/data")
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES ENVIRONMENT "QT_QPA_PLATFORM=offscreen" TIMEOUT 300)
endfunction()

# verbolt_add_bench(<name> SOURCES <files...> LIBS <targets...>)
function(verbolt_add_bench name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE verbolt_common ${ARG_LIBS})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/bench)
    target_compile_definitions(${name} PRIVATE VERBOLT_BENCH_DATA="${PROJECT_SOURCE_DIR}/../shared/bench-data")
endfunction()
