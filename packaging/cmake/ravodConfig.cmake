# Imported targets: ravod::ravo_client, ravod::zbservice, ravod::Ostra_config.
include("${CMAKE_CURRENT_LIST_DIR}/ravodTargets.cmake")
