target_sources(orlune_platform PRIVATE ${CMAKE_CURRENT_LIST_DIR}/sched_config.cpp)
