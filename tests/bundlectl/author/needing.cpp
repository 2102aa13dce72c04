// A program that needs a library of its own.
int Needed();

int main()
{
    return Needed();
}
