#ifndef TOOLS_VERSION_H
#define TOOLS_VERSION_H

/// What "--version" says after a tool's name: the project's version, the commit that it was built from, and the version
/// of the framework that the server was built with. The server itself has no such option.
extern const char TOOL_VERSION[];

#endif
