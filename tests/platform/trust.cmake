# SPDX-License-Identifier: Apache-2.0
# Attacks from another user on the paths that bring sensor data in.
orlune_add_gtest(trust_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/trust_test.cpp LIBS orlune_plugin)
