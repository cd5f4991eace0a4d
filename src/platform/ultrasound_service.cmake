# SPDX-License-Identifier: Apache-2.0
# ultrasound_service: the ranging client of the ultrasound service, over msg_socket.
target_sources(orlune_platform PRIVATE ${CMAKE_CURRENT_LIST_DIR}/ultrasound_service.cpp)
