#include "RavletApplication.h"

#include <QString>

// The program itself, pointed at the test's backend: the product takes its backend from the
// build, so the end-to-end tests build this copy, which takes it from RAVLET_TEST_BACKEND_ORIGIN.
int main(int argc, char* argv[])
{
    return runRavletApplication(argc, argv,
                                {qEnvironmentVariable("RAVLET_TEST_BACKEND_ORIGIN"), {}});
}
