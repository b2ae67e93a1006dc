# What `cmake --install BUILD --prefix P` puts in place. The tree can be moved as a whole: tools find the library, and
# pkg-config and CMake the headers, by relative paths.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(qt_include ${CMAKE_INSTALL_INCLUDEDIR}/qtrace)
set(qt_plugins ${CMAKE_INSTALL_LIBDIR}/qtrace)
set(qt_python ${CMAKE_INSTALL_DATADIR}/qtrace/python)
set(qt_package ${CMAKE_INSTALL_LIBDIR}/cmake/qtrace)
set(qt_pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# All that is installed: what `cmake --install` needs built.
add_custom_target(products DEPENDS replay qtrace plugin_qtbin qtrace_library)

# ---- Programs, plugin, library ----

file(RELATIVE_PATH bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(replay qtrace PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
install(TARGETS replay qtrace RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS plugin_qtbin LIBRARY DESTINATION ${qt_plugins})

set_target_properties(qtrace_library PROPERTIES EXPORT_NAME qtrace)
set_target_properties(trace_records PROPERTIES EXPORT_NAME records)
install(TARGETS qtrace_library trace_records EXPORT qtrace
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} INCLUDES DESTINATION ${qt_include})

file(GLOB qt_headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/include/*.h)
install(FILES ${qt_headers} qtrace/src/qtrace.h qtrace/src/qtrace_t.h qtrace/lib/qtrace_reader.h qtrace/lib/qtrace_schema.h
    qtrace/lib/qtrace_columns.h qtrace/lib/qtrace_jobs.h common/qt_plugin/plugin_qtbin.h DESTINATION ${qt_include})
install(DIRECTORY python/qtrace DESTINATION ${qt_python} FILES_MATCHING PATTERN "*.py" PATTERN __pycache__ EXCLUDE)

# ---- Completions ----

find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(completions)
foreach(program qtrace replay)
    set(bash ${CMAKE_BINARY_DIR}/completions/${program})
    set(zsh ${CMAKE_BINARY_DIR}/completions/_${program})
    set(writer ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/packaging/completions.py)
    add_custom_command(OUTPUT ${bash} ${zsh} DEPENDS ${program} packaging/completions.py VERBATIM
        COMMAND ${CMAKE_COMMAND} -E make_directory completions
        COMMAND ${writer} bash $<TARGET_FILE:${program}> > ${bash} COMMAND ${writer} zsh $<TARGET_FILE:${program}> > ${zsh})
    list(APPEND completions ${bash} ${zsh})
    install(FILES ${bash} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    install(FILES ${zsh} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
endforeach()
add_custom_target(completions ALL DEPENDS ${completions})
add_dependencies(products completions)

# ---- Packages ----

install(EXPORT qtrace NAMESPACE qtrace:: FILE qtrace-config.cmake DESTINATION ${qt_package})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/qtrace-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/qtrace-config-version.cmake DESTINATION ${qt_package})

file(RELATIVE_PATH pkgconfig_to_prefix /${qt_pkgconfig} /)
configure_file(cmake/qtrace.pc.in qtrace.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/qtrace.pc DESTINATION ${qt_pkgconfig})

# ---- Documents ----

file(GLOB qt_documents CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/*.md)
install(FILES ${qt_documents} LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})

find_program(SCDOC scdoc)
if(NOT SCDOC)
    message(STATUS "scdoc not found: no manual pages")
    return()
endif()
set(pages)
foreach(page qtrace.1 replay.1 qtrace-trace.5)
    string(REGEX MATCH "[0-9]$" number ${page})
    set(source ${CMAKE_SOURCE_DIR}/docs/man/${page}.scd)
    add_custom_command(OUTPUT man/${page} DEPENDS ${source} VERBATIM
        COMMAND ${CMAKE_COMMAND} -E make_directory man COMMAND ${SCDOC} < ${source} > man/${page})
    list(APPEND pages ${CMAKE_BINARY_DIR}/man/${page})
    install(FILES ${CMAKE_BINARY_DIR}/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${number})
endforeach()
add_custom_target(manual_pages ALL DEPENDS ${pages})
add_dependencies(products manual_pages)
