qt_test(qtrace_library_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/qtrace_library_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/random_traces.cpp LIBRARIES qtrace_reader_static LABEL library)
