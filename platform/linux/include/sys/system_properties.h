#pragma once

// The two limits that <cutils/properties.h> takes from the platform's C library.
#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
