// The library that the program in needing.cpp needs.
int Needed();

int Needed()
{
    return 0;
}
