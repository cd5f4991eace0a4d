# SPDX-License-Identifier: Apache-2.0
# motor_client: the brushless motor controller service over libiio.
target_sources(orlune_platform PRIVATE ${CMAKE_CURRENT_LIST_DIR}/motor_client.cpp)
