// bionic's <sys/system_properties.h>, which glibc lacks: cutils/properties.h
// includes it for the two size limits, and the daemon waits on a property
// with the functions below. Values and declarations are bionic's (API 26 and
// later), without its nullability annotations.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

typedef struct prop_info prop_info;

const prop_info* __system_property_find(const char* __name);
void __system_property_read_callback(const prop_info* __pi,
                                     void (*__callback)(void* __cookie, const char* __name, const char* __value,
                                                        uint32_t __serial),
                                     void* __cookie);
struct timespec;
bool __system_property_wait(const prop_info* __pi, uint32_t __old_serial, uint32_t* __new_serial_ptr,
                            const struct timespec* __relative_timeout);

#ifdef __cplusplus
}
#endif
