// An item that does nothing until it is killed.
#include <unistd.h>

int main()
{
    for (;;) {
        ::pause();
    }
}
