// A library item that needs a library which does not exist on any device.
extern "C" int Absent();
extern "C" int Needing();

int Needing()
{
    return Absent();
}
