# SPDX-License-Identifier: Apache-2.0
orlune_add_gtest(msg_socket_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/msg_socket_test.cpp LIBS orlune_platform)
