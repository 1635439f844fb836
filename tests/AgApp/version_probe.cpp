// Prints the identity the way the program sees it: build date, build time, banner and description.
#include <cstdio>

#include "SuiteVersions.h"

int main() {
    std::printf("%s\n%lld\n", AgApp::buildDateText().c_str(), static_cast<long long>(AgApp::buildTime()));
    std::printf("%s %s Version %s\n%s\n", AgApp::vendorName(), AgApp::productName(), AgApp::versionText(),
                AgApp::versionDescription().c_str());
    return 0;
}
