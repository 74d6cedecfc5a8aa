# find_package(tavro): tavro::client is all of it; each folder has a target of its own, with underscores
# for slashes (tavro::setup, tavro::platform_files), for whoever needs less.
include(${CMAKE_CURRENT_LIST_DIR}/TavroDependencies.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/tavro-targets.cmake)
