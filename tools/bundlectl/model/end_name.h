#ifndef BUNDLECTL_MODEL_END_NAME_H
#define BUNDLECTL_MODEL_END_NAME_H

#include <string>

namespace Model {

/// "SIGSEGV", "signal 44".
std::string NameOfSignal(int signal);

/// How a process has ended: the name of the signal, or "status 3".
std::string NameOfEnd(bool isSignal, int number);

} // namespace Model

#endif
