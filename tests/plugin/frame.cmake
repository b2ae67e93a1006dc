# Calls of the plugin that the tests see first.
target_link_options(pte_plugin_test PRIVATE -Wl,--wrap=fwrite)
target_link_options(memory_plugin_test PRIVATE -Wl,--wrap=malloc -Wl,--wrap=calloc -Wl,--wrap=free)
