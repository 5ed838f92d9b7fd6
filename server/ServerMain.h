#ifndef SERVER_SERVERMAIN_H
#define SERVER_SERVERMAIN_H

namespace ReplayServer {

// The ReplayManager command line; the process's exit status.
int ServerMain(int argc, char** argv);

}  // namespace ReplayServer

#endif
