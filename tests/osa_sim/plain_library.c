/* A library with one function, for loading at run time. */

__attribute__((visibility("default"))) int plain_answer(void);

int plain_answer(void)
{
    return 42;
}
