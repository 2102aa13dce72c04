// The library that the loader loads in its tests.
#include <cstdio>
#include <cstdlib>

extern "C" {

int WhatNobodyHas();

int ReturnZero();
int ReturnSeven();
int ReturnMinusOne();
int PrintOneLine();
int ExitWithNine();
int CallWhatNobodyHas();

int ReturnZero()
{
    return 0;
}

int ReturnSeven()
{
    return 7;
}

int ReturnMinusOne()
{
    return -1;
}

int PrintOneLine()
{
    return std::puts("from the library") < 0 ? 1 : 0;
}

int ExitWithNine()
{
    std::exit(9);
}

int CallWhatNobodyHas()
{
    return WhatNobodyHas();
}
}
