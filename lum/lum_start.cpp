// The program: everything but main() is in the library that the tests link too.
#include "lum_private.h"

int main(int argc, char **argv)
{
    return lum_process_main(argc, argv);
}
