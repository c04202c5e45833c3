// A library to load.

extern "C" __attribute__((visibility("default"))) int answer()
{
    return 42;
}

extern "C" __attribute__((visibility("default"))) int number;
int number = 42;
