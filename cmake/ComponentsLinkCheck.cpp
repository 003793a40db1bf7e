// Built from every object of the components and the fakes alone (see Sources/CMakeLists.txt): that
// it links at all is the check, so it does nothing.
int main()
{
    return 0;
}
