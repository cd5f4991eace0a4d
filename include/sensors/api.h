/* SPDX-License-Identifier: Apache-2.0 */
/* Marks the functions and objects the plug-in exports; everything else is hidden. */
#ifndef SENSORS_API_H
#define SENSORS_API_H

#if defined(__GNUC__)
#define SENSORS_API __attribute__((visibility("default")))
#else
#define SENSORS_API
#endif

#endif /* SENSORS_API_H */
