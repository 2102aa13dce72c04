// What looks like a C library that offers an early version only.
extern "C" int OldFunction();

extern "C" int OldFunction()
{
    return 0;
}
