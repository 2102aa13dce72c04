#ifndef TESTS_SUPPORT_SERVICE_ENVIRONMENT_H
#define TESTS_SUPPORT_SERVICE_ENVIRONMENT_H

#include <string>

/// The tests of the message service have a /mnt of their own and their log in a file.

/// The log of this test so far, by this process and its children.
std::string LogText();

/// Opens the log's file now, in a process that soon loses the right to open it.
void OpenLog();

/// How often a text occurs in the log.
int CountInLog(const std::string& text);

/// The path of the socket of the service with that name.
std::string SocketPath(const std::string& service);

#endif
