// The file tests' main: as the superuser, each test process gets a private mount namespace.
#include "ScratchVolumes.h"

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    qztest::enterPrivateMountNamespace();
    return RUN_ALL_TESTS();
}
