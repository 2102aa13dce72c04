// The lowest possible cost of loading a collection. Reads the directory. For each bundle it asks for the directory's
// status, reads and parses the manifest line by line, and writes as many log records as the server does.
//
//     floor_load LOG COLLECTION
#define _GNU_SOURCE
#include "record.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

enum { RECORDS_OF_A_BUNDLE = 20 };

static int g_log;

static void Fail(const char* what)
{
    fprintf(stderr, "floor_load: %s: %s\n", what, strerror(errno));
    exit(1);
}

static size_t ReadManifest(const char* path, char* text, size_t size)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        Fail(path);
    }
    size_t length = 0;
    for (ssize_t got = 0; (got = read(fd, text + length, size - 1 - length)) > 0;) {
        length += (size_t)got;
    }
    close(fd);
    text[length] = '\0';
    return length;
}

// Returns the bundle's name, for the records.
static const char* Parse(char* text)
{
    const char* name = "";
    char* rest = NULL;
    for (char* line = strtok_r(text, "\n", &rest); line != NULL; line = strtok_r(NULL, "\n", &rest)) {
        char* value = strchr(line, '=');
        if (value == NULL) {
            continue;
        }
        *value++ = '\0';
        value += strspn(value, " ");
        line[strcspn(line, " ")] = '\0';
        if (strcmp(line, "bundle_name") == 0) {
            name = value;
        }
    }
    return name;
}

static void Load(const char* directory)
{
    struct stat status;
    if (stat(directory, &status) == -1 || !S_ISDIR(status.st_mode)) {
        return;
    }
    char path[PATH_MAX + sizeof "/BundleManifest.ini"];
    snprintf(path, sizeof path, "%s/BundleManifest.ini", directory);
    char text[4096];
    ReadManifest(path, text, sizeof text);
    char message[256];
    snprintf(message, sizeof message, "resolve bundle[%.200s]...", Parse(text));
    const pid_t self = getpid();
    for (int i = 0; i < RECORDS_OF_A_BUNDLE; ++i) {
        WriteRecord(g_log, self, i, message);
    }
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: floor_load LOG COLLECTION\n");
        return 2;
    }
    g_log = open(argv[1], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    DIR* const collection = opendir(argv[2]);
    if (g_log == -1 || collection == NULL) {
        Fail(argv[2]);
    }
    for (const struct dirent* entry = NULL; (entry = readdir(collection)) != NULL;) {
        if (entry->d_name[0] != '.') {
            char path[PATH_MAX];
            snprintf(path, sizeof path, "%s/%s", argv[2], entry->d_name);
            Load(path);
        }
    }
    closedir(collection);
    WriteRecord(g_log, getpid(), 1, "init bundle server done.");
    return 0;
}
