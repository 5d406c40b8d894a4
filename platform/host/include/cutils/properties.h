// Stand-in for Android's system properties on a development machine: one file a property below
// /data/property.
#pragma once

#define PROPERTY_VALUE_MAX 92

extern "C" {

// Copies the property's value into value (PROPERTY_VALUE_MAX bytes), or default_value when the
// property is not set; a null default gives an empty value. Returns the length of the value.
int property_get(const char* key, char* value, const char* default_value);

// Sets the property. Returns 0, or -1 when the value is too long or cannot be stored.
int property_set(const char* key, const char* value);
}
