#include <sprintf_s.h>

int sprintf_s(char* dest, size_t dest_size, const char* format, ...)
{
    if (dest_size > 0) {
        dest[0] = '\0';
    }
    return -1;
}
