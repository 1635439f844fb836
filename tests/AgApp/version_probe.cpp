// Prints the build date and the build time the way the program sees them.
#include <cstdio>

#include "SuiteVersions.h"

int main() {
    std::printf("%s\n%lld\n", AgApp::buildDateText().c_str(), static_cast<long long>(AgApp::buildTime()));
    return 0;
}
