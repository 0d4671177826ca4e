# find_package(ravo). Imported targets: ravo::ravo_client, ravo::zbservice, ravo::Ostra_config.
include("${CMAKE_CURRENT_LIST_DIR}/ravoTargets.cmake")
