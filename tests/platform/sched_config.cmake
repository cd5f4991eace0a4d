orlune_add_gtest(sched_config_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/sched_config_test.cpp LIBS orlune_platform)
