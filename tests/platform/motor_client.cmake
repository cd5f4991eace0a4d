# SPDX-License-Identifier: Apache-2.0
# motor_client against the virtual vehicle's motor controller, in process.
if(TARGET orlune_sim)
  orlune_add_gtest(motor_client_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/motor_client_test.cpp
    LIBS orlune_platform orlune_sim)
endif()
