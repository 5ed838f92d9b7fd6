// Records one text item through the C++ interface and waits until the replay
// hands it back.
#include <libreplay/ReplayClient.h>

#include "replay_wait.h"

namespace {

const char kItem[] = "position 48.1 11.5";

int SendWhileRecording() {
    return ReplayClient::GetReplayState() == ReplayCore::eStateRecord &&
           ReplayClient::SendClientData(kItem, sizeof kItem - 1, true, kDataTypeAsciiText) > 0;
}

}  // namespace

int main() {
    ReplayClient::InitializeReplayClient("cxxclient", OnReplay, nullptr, kDataTypeAsciiText);
    const int status = SendAndAwaitReplay(kItem, sizeof kItem - 1, SendWhileRecording);
    ReplayClient::ShutDownClient(0, nullptr);
    return status;
}
