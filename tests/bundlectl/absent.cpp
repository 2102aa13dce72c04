// A library that the test removes, although another library needs it.
extern "C" int Absent();

int Absent()
{
    return 0;
}
