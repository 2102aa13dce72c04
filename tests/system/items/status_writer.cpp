// A program in place of a script. It appends the kernel's status of its process to a file of its own name in the
// directory in the environment variable NOTES. A shell would report itself, with a signal mask that it has set.
#include <cstdlib>
#include <fstream>
#include <string>

int main(int argc, char** argv)
{
    const char* const notes = std::getenv("NOTES");
    if (argc < 1 || notes == nullptr) {
        return 1;
    }
    const std::string path = argv[0];
    std::ofstream note(notes + path.substr(path.rfind('/')), std::ios::app);
    note << std::ifstream("/proc/self/status").rdbuf();
    return note ? 0 : 1;
}
