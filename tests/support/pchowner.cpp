// Only carries the tests' precompiled header; never run.
int main()
{
    return 0;
}
