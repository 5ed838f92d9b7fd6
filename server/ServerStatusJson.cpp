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
                           {"bytes", server.BytesReceivedFrom(client.GetClientName())},
                           {"sent", client.GetPacketsSent()},
                           {"dropped", client.GetDroppedPackets()},
                           {"slot", server.SlotOf(client.GetClientName())},
                           {"last_message", client.GetAuxiliaryText()},
                           {"note", server.NoteOf(client.GetClientName())}});
    }
    return clients;
}

// Client names and messages come from the network: invalid UTF-8 is
// replaced rather than refused.
std::string Line(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json Replay(const ReplayPosition& position, const std::vector<ClientDelivery>& deliveries,
            const ReplayResult* result) {
    Json clients = Json::array();
    for (const ClientDelivery& delivery : deliveries) {
        const auto skipped = position.skippedBySeek.find(delivery.name);
        const DeliveryTiming& timing = delivery.timing;
        Json recent = Json::array();
        for (const auto& item : timing.recent) {
            recent.push_back({item.first - position.startMs, item.second / 1000.0});
        }
        clients.push_back(
            {{"name", delivery.name},
             {"sent", delivery.recordsSent},
             {"delivered", delivery.recordsReported},
             {"missed", MissedRecords(delivery, position)},
             {"skipped_by_seek", skipped == position.skippedBySeek.end() ? 0 : skipped->second},
             {"checksum_errors", delivery.checksumErrors},
             {"last_report", delivery.lastReport},
             // Report arrival against each item's moment: [position ms,
             // error ms (late positive)] for the latest items.
             {"timing",
              {{"items", timing.items},
               {"mean_ms", timing.MeanMs()},
               {"p99_ms", timing.PercentileMs(0.99)},
               {"max_ms", timing.MaxMs()},
               {"recent", recent}}}});
    }
    Json json = {{"paused", position.paused},
                 {"rate", position.rate},
                 {"max_rate", position.maxRate},
                 {"loop", position.loop},
                 {"position_ms", position.logMs - position.startMs},
                 {"duration_ms", position.endMs - position.startMs},
                 {"record", position.nextRecord},
                 {"records", position.records},
                 {"records_sent", position.recordsSent},
                 {"loops", position.loops},
                 {"clients", clients}};
    if (result != nullptr) {
        json["completed"] = result->completed;
        json["cancelled"] = result->cancelled;
        json["error"] = result->error;
        json["initialisation_sent"] = result->initialisationSent;
        json["send_failures"] = result->sendFailures;
        json["latest_send_ms"] = result->maxSendLatenessMs;
        json["undelivered_clients"] = result->undeliveredClients;
        json["pacing_stalls"] = result->pacingStalls;
    }
    return json;
}

}  // namespace

uint64_t MissedRecords(const ClientDelivery& delivery, const ReplayPosition& position) {
    const auto skipped = position.skippedBySeek.find(delivery.name);
    const uint64_t bySeek = skipped == position.skippedBySeek.end() ? 0 : skipped->second;
    return delivery.missed > bySeek ? delivery.missed - bySeek : 0;
}

std::string ReplayJson(const ReplayPosition& position,
                       const std::vector<ClientDelivery>& deliveries, const ReplayResult* result) {
    return Line(Replay(position, deliveries, result));
}

std::string ClientsJson(ReplayServer& server) {
    return Line(Json{{"clients", ClientList(server)}});
}

std::string StatusJson(ReplayServer& server, bool jobRunning, const ReplayPosition* replay) {
    const ServerCounters counters = server.Counters();
    Json json = {{"state", ReplayCore::ReplayStateManager::GetReplayStateName(server.GetState())},
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
    if (replay != nullptr) {
        json["replay"] = Replay(*replay, server.Deliveries().Snapshot(), nullptr);
    }
    return Line(json);
}

}  // namespace ReplayServer
