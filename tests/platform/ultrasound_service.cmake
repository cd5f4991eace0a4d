# SPDX-License-Identifier: Apache-2.0
orlune_add_gtest(ultrasound_service_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/ultrasound_service_test.cpp
  LIBS orlune_platform)
