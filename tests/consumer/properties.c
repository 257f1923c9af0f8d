// What the platform's libcutils brings on a device and Debian's does not.
#include <cutils/properties.h>
#include <string.h>

int property_get(const char* key, char* value, const char* default_value) {
    (void)key;
    strcpy(value, default_value);
    return (int)strlen(value);
}
int property_set(const char* key, const char* value) {
    (void)key;
    (void)value;
    return 0;
}
