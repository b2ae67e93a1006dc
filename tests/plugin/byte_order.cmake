# The plugin's text formatting does not compile for a big-endian machine. The program is its own control: without the
# definition it compiles.
set(formatter ${CMAKE_SOURCE_DIR}/common/qt_plugin/text_format.h)
set(compile ${CMAKE_CXX_COMPILER} -std=c++20 -fsyntax-only -x c++)
add_test(NAME byte_order.text_formatting_compiles_for_this_machine COMMAND ${compile} ${formatter})
add_test(NAME byte_order.text_formatting_does_not_compile_for_a_big_endian_machine
    COMMAND ${compile} -U__BYTE_ORDER__ -D__BYTE_ORDER__=__ORDER_BIG_ENDIAN__ ${formatter})
set_tests_properties(byte_order.text_formatting_does_not_compile_for_a_big_endian_machine
    PROPERTIES PASS_REGULAR_EXPRESSION "a big-endian machine needs the digits swapped")
