// Host stand-in for bionic's <sys/system_properties.h>: the limits that
// <cutils/properties.h> builds on, and the lookup, read and wait of one
// property. Values and declarations as on the platform; the host's
// properties are the lines of the file PROBEMOND_PROPERTY_FILE names
// (platform/host/cutils/properties.cpp says how they map).
#pragma once

#include <stdbool.h>
#include <stdint.h>
#include <time.h>

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

typedef struct prop_info prop_info;

const prop_info* __system_property_find(const char* name);
void __system_property_read_callback(const prop_info* pi,
                                     void (*callback)(void* cookie, const char* name, const char* value,
                                                      uint32_t serial),
                                     void* cookie);
bool __system_property_wait(const prop_info* pi, uint32_t old_serial, uint32_t* new_serial_ptr,
                            const struct timespec* relative_timeout);

#ifdef __cplusplus
}
#endif
