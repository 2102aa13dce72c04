#ifndef TESTS_SUPPORT_SERVICE_ENVIRONMENT_H
#define TESTS_SUPPORT_SERVICE_ENVIRONMENT_H

#include <string>

/// The tests of the message service have a /mnt of their own and their log in a file.

/// What has been logged in this test so far, by this process and its children.
std::string LogText();

/// Has the log's file opened now, for a process that soon could not.
void OpenLog();

/// How often a text stands in the log.
int CountInLog(const std::string& text);

/// Where a service of that name has its socket.
std::string SocketPath(const std::string& service);

#endif
