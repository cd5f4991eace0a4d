# SPDX-License-Identifier: Apache-2.0
# motor_client against the virtual vehicle's motor controller, in process.
if(TARGET orlune_sim)
  orlune_add_gtest(motor_client_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/motor_client_test.cpp
    LIBS orlune_platform orlune_sim)
  orlune_add_board_tests(motor_client_test "*")
  # A kernel judges writes at once, as the network does. The flush's count of
  # samples in 100 ms of wall time is beyond an emulated guest.
  orlune_add_kernel_tests(motor_client_test "-MotorClientTest.FlushKeepsTheNewestSampleUpToTheLimitAndHoldsLaterOnesBack")
endif()
