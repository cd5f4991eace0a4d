# SPDX-License-Identifier: Apache-2.0
# iio_helper: IIO device, trigger, buffer and attribute set-up over libiio.
target_sources(orlune_platform PRIVATE iio_helper.cpp)
