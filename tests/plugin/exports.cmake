# What the built plugin shows to a loader, and that a host with the same names in it does not disturb it.
qt_test(exports_test SOURCES exports_test.cpp)
target_compile_definitions(exports_test PRIVATE PLUGIN_FILE="$<TARGET_FILE:plugin_qtbin>" NM="${CMAKE_NM}"
    READELF="${CMAKE_READELF}")
add_dependencies(exports_test plugin_qtbin)

# The clashing names are not instrumented: two variables of one name are what this is about.
add_library(clashing_names OBJECT clashing_names.c)
target_link_libraries(clashing_names PRIVATE qt_options)
if(QT_SANITIZE)
    target_compile_options(clashing_names PRIVATE -fno-sanitize=all)
endif()
qt_test(clashing_host_test SOURCES clashing_host_test.cpp ${CMAKE_SOURCE_DIR}/tests/support/recording_writer.cpp
    $<TARGET_OBJECTS:clashing_names> LIBRARIES replay_library replay_host trace_records)
target_include_directories(clashing_host_test PRIVATE ${CMAKE_SOURCE_DIR}/tests/support)
target_compile_definitions(clashing_host_test PRIVATE PLUGIN_FILE="$<TARGET_FILE:plugin_qtbin>")
set_target_properties(clashing_host_test PROPERTIES ENABLE_EXPORTS ON)
add_dependencies(clashing_host_test plugin_qtbin)
