#include "server/ServerStatusJson.h"

#include <nlohmann/json.hpp>

namespace ReplayServer {

namespace {

using Json = nlohmann::ordered_json;

Json ClientList(ReplayServer& server) {
    Json clients = Json::array();
    for (const ClientData& client : server.Clients()) {
        clients.push_back({{"name", client.GetClientName()},
                           {"port", client.GetPort()},
                           {"status", client.GetClientStatusString()},
                           {"received", client.GetMessagesReceived()},
                           {"sent", client.GetPacketsSent()},
                           {"dropped", client.GetDroppedPackets()},
                           {"slot", server.SlotOf(client.GetClientName())},
                           {"last_message", client.GetAuxiliaryText()}});
    }
    return clients;
}

// Client names and messages come from the network: invalid UTF-8 is
// replaced rather than refused.
std::string Line(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string ClientsJson(ReplayServer& server) {
    return Line(Json{{"clients", ClientList(server)}});
}

std::string StatusJson(ReplayServer& server, bool jobRunning) {
    const ServerCounters counters = server.Counters();
    const Json json = {
        {"state", ReplayCore::ReplayStateManager::GetReplayStateName(server.GetState())},
        {"job_running", jobRunning},
        {"counters",
         {{"datagrams", counters.datagrams},
          {"records_to_log", counters.recordsForwarded},
          {"checksum_failures", counters.checksumFailures},
          {"unparsable", counters.unparsable},
          {"pipe_failures", counters.forwardFailures},
          {"status_records", counters.statusRecords},
          {"refused_clients", counters.refusedClients},
          {"refused_sources", counters.refusedSources},
          {"held_for_ordering", counters.recordsHeld},
          {"no_room_to_hold", counters.heldOverflow},
          {"passed_on_early", counters.heldReleasedEarly},
          {"oversized_datagrams", counters.oversized},
          {"outside_time_window", counters.outsideTimeWindow},
          {"dropped_late", counters.droppedLate},
          {"items_after_stop", counters.itemsAfterStop},
          {"blocks_after_stop", counters.blocksAfterStop},
          {"records_recovered", counters.recordsRecovered},
          {"journal_failures", counters.journalFailures},
          {"journal_on", counters.journalOn}}},
        {"clients", ClientList(server)}};
    return Line(json);
}

}  // namespace ReplayServer
