// That library.
int Needed();

int Needed()
{
    return 0;
}
