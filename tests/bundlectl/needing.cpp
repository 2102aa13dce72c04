// A library item that needs a library which no device has.
extern "C" int Absent();
extern "C" int Needing();

int Needing()
{
    return Absent();
}
