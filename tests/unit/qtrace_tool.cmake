find_package(nlohmann_json REQUIRED)
qt_test(check_rules_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/check_rules_test.cpp ${CMAKE_CURRENT_LIST_DIR}/planted_trace.cpp
    LIBRARIES qtrace_tool nlohmann_json::nlohmann_json)
qt_test(qtrace_command_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/qtrace_command_test.cpp ${CMAKE_CURRENT_LIST_DIR}/planted_trace.cpp
    LIBRARIES qtrace_tool nlohmann_json::nlohmann_json)
target_compile_definitions(qtrace_command_test PRIVATE RECORDED_STREAM="${CMAKE_SOURCE_DIR}/streams/sample.jsonl")
