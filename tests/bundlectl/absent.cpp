// A library that is taken away from the one that needs it.
extern "C" int Absent();

int Absent()
{
    return 0;
}
