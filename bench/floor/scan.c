#define _GNU_SOURCE

#include "floor/scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <stddef.h>
#include <string.h>
#include <sys/stat.h>

long long floor_scan(const char* path)
{
    static const char* const parts[] = {"", "/BundleManifest.ini", "/bin", "/script"};
    long long seen = 0;
    DIR* const directory = opendir(path);
    if (directory == NULL) {
        return -1;
    }
    const struct dirent* entry;
    while ((entry = readdir(directory)) != NULL) {
        if (entry->d_type != DT_DIR || entry->d_name[0] == '.') {
            continue;
        }
        char name[512];
        const size_t length = strlen(entry->d_name);
        memcpy(name, entry->d_name, length);
        for (size_t i = 0; i < sizeof parts / sizeof parts[0]; ++i) {
            strcpy(name + length, parts[i]);
            struct stat status;
            if (fstatat(dirfd(directory), name, &status, 0) == 0) {
                seen += status.st_mtim.tv_nsec + status.st_ctim.tv_nsec + (long long)status.st_ino + status.st_size;
            }
        }
    }
    closedir(directory);
    return seen;
}
