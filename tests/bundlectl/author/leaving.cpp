// A program with calls that take it out of the server's process group.
#include <unistd.h>

int main()
{
    return ::setsid() == -1 && ::setpgid(0, 0) == -1 ? 1 : 0;
}
