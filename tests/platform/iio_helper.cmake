# SPDX-License-Identifier: Apache-2.0
# iio_helper against the virtual vehicle's iiod server, in process.
if(TARGET orlune_sim)
  orlune_add_gtest(iio_helper_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/iio_helper_test.cpp
    LIBS orlune_platform orlune_sim orlune_alloc_counter)
endif()
