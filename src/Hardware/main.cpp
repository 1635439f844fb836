// The CAN flashing daemon.
#include "Daemon.h"

int main(int argc, char* argv[]) {
    return varnochd::runDaemon(argc, argv);
}
