// Parses arbitrary records and checks that the payload found lies inside the
// record.

#include <cstdint>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "libreplay/server/ClientRecord.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::Initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string record(reinterpret_cast<const char*>(data), size);
    std::string clientName;
    ReplayCore::MSTime::MSTimeStruct time;
    unsigned int dataType = 0;
    unsigned int firstNumber = 0;
    unsigned int sequenceNumber = 0;
    unsigned int payloadLength = 0;
    unsigned int payloadStart = 0;
    if (ParseClientRecord(record, clientName, time, dataType, firstNumber, sequenceNumber,
                          payloadLength, payloadStart)) {
        if (static_cast<size_t>(payloadStart) + payloadLength > size ||
            clientName.size() > ReplayCore::kMaximumClientNameLength) {
            __builtin_trap();
        }
    }
    return 0;
}
