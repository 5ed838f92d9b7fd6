#include "server/ServerMain.h"

int main(int argc, char** argv) {
    return ReplayServer::ServerMain(argc, argv);
}
