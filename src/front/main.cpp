// The library can be started as a program and does nothing then.
int main()
{
    return 0;
}
