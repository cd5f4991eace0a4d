orlune_add_gtest(telemetry_test
  SOURCES shm_telemetry_test.cpp telemetry_layouts_test.cpp
  LIBS orlune_platform)
# Its own binary: it interposes the allocator.
orlune_add_gtest(telemetry_alloc_test
  SOURCES telemetry_alloc_test.cpp
  LIBS orlune_platform orlune_alloc_counter)
