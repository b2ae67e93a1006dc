# A translation mode with an existing case is one row of the plugin's table: this plugin has a row for the mode 38, and
# is otherwise the plugin. The tools' half of such a mode is one row of their own list.
set(new_mode_folder ${CMAKE_CURRENT_BINARY_DIR}/plugin_with_a_new_mode)
set(last_row "    // everything above:\n    /* 38 */")
set(new_row "    /* 38 */ {\"Z7_HostRadixNew\", RADIX_MODE, 3, 0, CASE_HOST_RADIX},\n")
file(GLOB plugin_files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/common/qt_plugin/*.cpp
    ${CMAKE_SOURCE_DIR}/common/qt_plugin/*.h)
foreach(source ${plugin_files})
    get_filename_component(name ${source} NAME)
    if(name STREQUAL "xlate_modes.h")
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
        file(READ ${source} table)
        string(REPLACE "${last_row}" "${new_row}${last_row}" patched "${table}")
        if(patched STREQUAL table)
            message(FATAL_ERROR "${source}: the last row of XLATE_MODES is not where the new mode is to go")
        endif()
        file(CONFIGURE OUTPUT ${new_mode_folder}/${name} CONTENT "${patched}" @ONLY)
    else()
        configure_file(${source} ${new_mode_folder}/${name} COPYONLY)
    endif()
endforeach()
file(GLOB new_mode_sources ${new_mode_folder}/*.cpp)

# The records of the plugin's own folder are the same; only the table differs.
add_executable(new_mode_test new_mode_test.cpp ${new_mode_sources})
target_include_directories(new_mode_test BEFORE PRIVATE ${new_mode_folder})
target_link_libraries(new_mode_test PRIVATE test_support GTest::gtest_main GTest::gmock qt_options)
target_compile_options(new_mode_test PRIVATE ${QT_CLEAR_BY_STORES})
gtest_discover_tests(new_mode_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS plugin ${qt_test_environment})
