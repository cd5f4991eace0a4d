# Shared-memory telemetry sections and the layouts of the published sensor records.
target_sources(orlune_platform PRIVATE shm_telemetry.cpp sensor_tlm_layouts.cpp)
