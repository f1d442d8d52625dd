#include "daemon/MainLoop.h"

int main(int argc, char** argv)
{
    return MainLoop(argc, argv);
}
