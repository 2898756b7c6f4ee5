#include "BuildConfig.h"
#include "RavletApplication.h"

int main(int argc, char* argv[])
{
    return runRavletApplication(argc, argv, {QString::fromUtf16(BuildConfig::backendOrigin), {}});
}
