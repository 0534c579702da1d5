#include <cstdio>

int main()
{
    std::fputs("l2rsm-host: nothing to play yet\n", stderr);
    return 1;
}
