# SPDX-License-Identifier: Apache-2.0
# msg_socket: framed typed messages over abstract UNIX sockets, client and server.
target_sources(orlune_platform PRIVATE ${CMAKE_CURRENT_LIST_DIR}/msg_socket.cpp)
