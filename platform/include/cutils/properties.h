// Host stand-in for <cutils/properties.h>: an in-process property store.
#pragma once

#include <stdint.h>

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Integer value of `key`, or `default_value` when unset, empty or not a
// whole number in range.
int32_t property_get_int32(const char* key, int32_t default_value);

// Copies the value (or `default_value` when unset) into `value`, which holds
// PROPERTY_VALUE_MAX bytes; returns the length written.
int property_get(const char* key, char* value, const char* default_value);

// 0 on success, -1 for a null key or a value of PROPERTY_VALUE_MAX bytes or more.
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
