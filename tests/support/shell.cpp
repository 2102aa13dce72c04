#include "support/shell.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>

std::string Shell(const std::string& commands)
{
    return "#!/bin/sh\n" + commands + "\n";
}

void RunShell(const std::string& command)
{
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

std::string OutputOf(const std::string& command)
{
    std::string output;
    FILE* const pipe = ::popen(command.c_str(), "re");
    std::array<char, 4096> piece{};
    for (std::size_t size = 0; (size = std::fread(piece.data(), 1, piece.size(), pipe)) != 0;) {
        output.append(piece.data(), size);
    }
    ::pclose(pipe);
    return output;
}

bool HasProgram(const std::string& name)
{
    return std::system(("command -v " + name + " > /dev/null").c_str()) == 0;
}
