// Parses arbitrary time texts, prints them back, and checks the record
// writer's time text against the clock's own.

#include <cstdint>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "libreplay/server/ClientRecord.h"
#include "libreplay/ReplayCore.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::Initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const ReplayCore::MSTime::MSTimeStruct time(text);
    const std::string printed = time.ToString();

    char written[32];
    ReplayCore::RecordWriter writer(written, sizeof written);
    writer.Time(time);
    if (printed != std::string(written, writer.Length())) {
        __builtin_trap();
    }
    // A negative time loses its sign when its seconds are 0, so only
    // non-negative times read back to themselves.
    const ReplayCore::MSTime::MSTimeStruct again(printed);
    if (time.m_timeMilliseconds >= 0 && again.m_timeMilliseconds != time.m_timeMilliseconds) {
        __builtin_trap();
    }
    return 0;
}
