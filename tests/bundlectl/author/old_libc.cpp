// A library that looks like a C library with only an early version.
extern "C" int OldFunction();

extern "C" int OldFunction()
{
    return 0;
}
