orlune_add_gtest(telemetry_test
  SOURCES shm_telemetry_test.cpp telemetry_layouts_test.cpp
  LIBS orlune_platform)
