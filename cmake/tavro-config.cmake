# find_package(tavro): the floors as tavro::domain, platform, transport, tuf and app; link the highest
# that you include.
include(${CMAKE_CURRENT_LIST_DIR}/TavroDependencies.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/tavro-targets.cmake)
