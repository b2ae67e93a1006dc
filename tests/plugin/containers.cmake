# Lets a test make single allocations of the plugin fail, and count the bytes that it moves.
target_link_options(containers_plugin_test PRIVATE "LINKER:--wrap=malloc,--wrap=calloc,--wrap=memmove")
