// bionic's <sys/system_properties.h>, which glibc lacks: cutils/properties.h
// includes it for the two size limits (bionic's values).
#pragma once
#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
