# What an engineer's launcher is built from, and a distributor's tools.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TAVRO_FLOORS domain platform transport tuf app)
set(TAVRO_EXPORTED ${TAVRO_FLOORS} archive_library utf8proc_library)
foreach(name IN LISTS TAVRO_EXPORTED)
  set_target_properties(tavro_${name} PROPERTIES EXPORT_NAME ${name})
endforeach()
list(TRANSFORM TAVRO_EXPORTED PREPEND tavro_)
install(TARGETS ${TAVRO_EXPORTED} EXPORT tavro)
foreach(floor IN LISTS TAVRO_FLOORS)
  install(DIRECTORY client/${floor} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavro
    FILES_MATCHING PATTERN "*.h")
endforeach()

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/tavro)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tavro-config-version.cmake
  COMPATIBILITY ExactVersion)
install(EXPORT tavro NAMESPACE tavro:: FILE tavro-targets.cmake DESTINATION ${package})
install(FILES cmake/tavro-config.cmake cmake/TavroDependencies.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/tavro-config-version.cmake DESTINATION ${package})

# tavro_link_words(OUT STATIC NAME): how a linker is told of it.
function(tavro_link_words out static name)
  set(${out} "-l${name}" PARENT_SCOPE)
  if(static)
    set(${out} "${static}" PARENT_SCOPE)
  endif()
endfunction()
tavro_link_words(TAVRO_ARCHIVE_WORDS "${TAVRO_STATIC_ARCHIVE}" archive)
tavro_link_words(TAVRO_UTF8PROC_WORDS "${TAVRO_STATIC_UTF8PROC}" utf8proc)
# The tree may be moved after it was installed.
file(RELATIVE_PATH TAVRO_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/tavro.pc.in tavro.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tavro.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS tavro-publish tavro-bootstrap)
install(FILES man/tavro-bootstrap.1 man/tavro-install.1 man/tavro-publish.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
