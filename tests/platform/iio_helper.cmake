# SPDX-License-Identifier: Apache-2.0
# iio_helper against the virtual vehicle's iiod server, in process.
if(TARGET orlune_sim)
  orlune_add_gtest(iio_helper_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/iio_helper_test.cpp
    LIBS orlune_platform orlune_sim orlune_alloc_counter)
  # Left out on the board's transport: refill errors and short batches are
  # answers of the network server's; a kernel keeps the scans sampled before
  # a stall or a disable in its buffer.
  orlune_add_board_tests(iio_helper_test "-IioHelper.StreamFaultsReachTheCallerOnceAndTheStreamResumesInStep")
  # On the genuine kernel too, but for a count of scans in 50 ms of wall
  # time, which an emulated guest is too slow to meet.
  orlune_add_kernel_tests(iio_helper_test "-IioHelper.StreamFaultsReachTheCallerOnceAndTheStreamResumesInStep:IioHelper.SeveralDevicesStreamAtOnce")
endif()
