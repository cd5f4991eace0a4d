# SPDX-License-Identifier: Apache-2.0
# motor_client against the virtual vehicle's motor controller, in process.
if(TARGET orlune_sim)
  orlune_add_gtest(motor_client_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/motor_client_test.cpp
    LIBS orlune_platform orlune_sim)
  # A value the controller refuses fails the write on the network; a
  # stand-in's attribute file takes any write.
  orlune_add_board_tests(motor_client_test "-MotorClientTest.CommandsReachTheControllersAttributes")
endif()
