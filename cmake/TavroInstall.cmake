# What an engineer's launcher is built from, and a distributor's tools.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

get_property(rooms GLOBAL PROPERTY TAVRO_ROOMS)
get_property(groups GLOBAL PROPERTY TAVRO_ROOM_GROUPS)
# The publisher's folder is a program's, no library for others.
list(REMOVE_ITEM rooms publisher)
string(REPLACE / _ TAVRO_EXPORTED "${rooms}")
list(APPEND TAVRO_EXPORTED ${groups} archive_library utf8proc_library)
foreach(name IN LISTS TAVRO_EXPORTED)
  set_target_properties(tavro_${name} PROPERTIES EXPORT_NAME ${name})
endforeach()
list(TRANSFORM TAVRO_EXPORTED PREPEND tavro_)
install(TARGETS ${TAVRO_EXPORTED} EXPORT tavro
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavro)
# How a linker wants them named: the highest first.
list(REVERSE rooms)
string(REPLACE / _ TAVRO_ROOM_WORDS "${rooms}")
list(TRANSFORM TAVRO_ROOM_WORDS PREPEND -ltavro_)
list(JOIN TAVRO_ROOM_WORDS " " TAVRO_ROOM_WORDS)

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

# For games, which need nothing else of this.
install(FILES sdk/tavro_game.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS tavro-publish tavro-bootstrap)
install(FILES man/tavro.1 man/tavro-bootstrap.1 man/tavro-install.1 man/tavro-publish.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
