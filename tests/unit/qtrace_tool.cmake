find_package(nlohmann_json REQUIRED)
qt_test(check_rules_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/check_rules_test.cpp ${CMAKE_CURRENT_LIST_DIR}/planted_trace.cpp
    LIBRARIES qtrace_tool nlohmann_json::nlohmann_json LABEL tool)
qt_test(qtrace_command_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/qtrace_command_test.cpp ${CMAKE_CURRENT_LIST_DIR}/planted_trace.cpp
    LIBRARIES qtrace_tool nlohmann_json::nlohmann_json LABEL tool)
target_compile_definitions(qtrace_command_test PRIVATE RECORDED_STREAM="${CMAKE_SOURCE_DIR}/streams/sample.jsonl")

file(GLOB recorded_streams ${CMAKE_SOURCE_DIR}/streams/*.jsonl ${CMAKE_SOURCE_DIR}/streams/*.jsonl.zst)
foreach(stream ${recorded_streams})
    get_filename_component(name ${stream} NAME_WE)
    add_test(NAME check_recorded_stream.${name} COMMAND ${CMAKE_CURRENT_LIST_DIR}/check_recorded_stream.sh
        $<TARGET_FILE:replay> $<TARGET_FILE:plugin_qtbin> $<TARGET_FILE:qtrace> ${stream})
    set_tests_properties(check_recorded_stream.${name} PROPERTIES TIMEOUT 300)
endforeach()
