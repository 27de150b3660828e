// Host stand-in for bionic's <sys/system_properties.h>: the limits that
// <cutils/properties.h> builds on. Values as on the platform.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
