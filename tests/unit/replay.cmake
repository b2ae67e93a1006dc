# The stand-in host: its services, streams, console, and how it holds a plugin.
find_package(simdjson REQUIRED)
qt_test(host_services_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/host_services_test.cpp LIBRARIES replay_host_observed LABEL replay)
qt_test(stream_reader_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/stream_reader_test.cpp
    LIBRARIES replay_library replay_host_observed PkgConfig::ZSTD LABEL replay)
target_compile_definitions(stream_reader_test PRIVATE STREAMS_FOLDER="${CMAKE_SOURCE_DIR}/streams")
qt_test(console_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/console_test.cpp ${CMAKE_CURRENT_LIST_DIR}/command_words_test.cpp
    LIBRARIES replay_library replay_host LABEL replay)

# A plugin that reports what it is called with, and others that lack something.
function(fake_plugin name)
    add_library(${name} MODULE ${CMAKE_CURRENT_SOURCE_DIR}/fake_plugin.cpp)
    set_target_properties(${name} PROPERTIES PREFIX "")
    target_compile_definitions(${name} PRIVATE ${ARGN})
    target_link_libraries(${name} PRIVATE host_interface qt_options)
endfunction()
fake_plugin(fake_plugin)
fake_plugin(fake_plugin_refusing REFUSES_THE_MACHINE)
fake_plugin(fake_plugin_without_quit HAS_NO_QUIT)
fake_plugin(fake_plugin_without_handler HAS_NO_HANDLER)
qt_test(plugin_module_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/plugin_module_test.cpp
    LIBRARIES replay_library test_support LABEL replay)
set_target_properties(plugin_module_test PROPERTIES ENABLE_EXPORTS ON)
add_dependencies(plugin_module_test fake_plugin fake_plugin_refusing fake_plugin_without_quit
    fake_plugin_without_handler plugin_qtbin)
target_compile_definitions(plugin_module_test PRIVATE PLUGINS="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/"
    STREAMS_FOLDER="${CMAKE_SOURCE_DIR}/streams")
