#include "ReplayManager/MemoryBuffer.h"

#include <cmath>
#include <cstring>
#include <new>

#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayDebug.h"

namespace ReplayCore {

namespace {

// The smallest power of two strictly above `size` (a power of two doubles),
// or 0 when that does not fit in 32 bits.
unsigned int GrownCapacity(unsigned int size) {
    // A buffer built during static initialisation may run before the shared
    // constant is set; fall back to computing it here.
    const double log2 = g_naturalLogOf2 > 0.0 ? g_naturalLogOf2 : std::log(2.0);
    const int exponent = static_cast<int>(std::log(static_cast<double>(size)) / log2) + 1;
    if (exponent >= 32) {
        return 0;
    }
    return 1u << exponent;
}

}  // namespace

MemoryBuffer::MemoryBuffer(const char* name, unsigned int initialSize, unsigned int limit)
    : m_capacity(0), m_length(0), m_data(nullptr), m_limit(limit), m_name(name ? name : "") {
    if (initialSize != 0) {
        ExpandBuffer(initialSize, true);
    }
}

MemoryBuffer::~MemoryBuffer() {
    delete[] m_data;
    m_data = nullptr;
    m_capacity = 0;
}

unsigned char* MemoryBuffer::ExpandBuffer(unsigned int size, bool clear) {
    static const char* const kTag = "libReplay::MemoryBuffer::ExpandBuffer";
    if (m_capacity >= size) {
        if (m_data != nullptr && clear) {
            std::memset(m_data, 0, m_capacity);
        }
        return m_data;
    }
    if (size > m_limit) {
        if (DebugOutputAttached()) {
            dbgError(
                "%s::%s: MemoryBuffer %s::AllocateBuffer: Requested size of %u exceeds limit "
                "of %u\n",
                DebugAppName(), kTag, m_name.c_str(), size, m_limit);
        }
        return nullptr;
    }
    if (size == 0) {
        if (DebugOutputAttached()) {
            dbgWarning(
                "%s::%s: MemoryBuffer %s::AllocateBuffer: Ignoring Request for Zero Length "
                "Buffer\n",
                DebugAppName(), kTag, m_name.c_str());
        }
        return nullptr;
    }
    const unsigned int newCapacity = GrownCapacity(size);
    if (DebugOutputAttached()) {
        dbgMessage(
            "%s::%s: MemoryBuffer %s: Bytes requested=%d; Current Buffer Size=%d; New size "
            "= %d\n",
            DebugAppName(), kTag, m_name.c_str(), static_cast<int>(size),
            static_cast<int>(m_capacity), static_cast<int>(newCapacity));
    }
    // A capacity that does not fit in 32 bits cannot hold the request: report
    // it as a failed allocation and keep the old storage.
    unsigned char* grown =
        newCapacity != 0 ? new (std::nothrow) unsigned char[newCapacity] : nullptr;
    if (grown == nullptr) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: MemoryBuffer %s::AllocateBuffer: Failed to Allocate %u Bytes!\n",
                     DebugAppName(), kTag, m_name.c_str(), newCapacity);
        }
        return nullptr;
    }
    // The old contents are not carried over: owners refill after growth.
    delete[] m_data;
    m_data = grown;
    m_capacity = newCapacity;
    m_length = 0;
    if (clear) {
        std::memset(m_data, 0, m_capacity);
    }
    return m_data;
}

unsigned char* MemoryBuffer::operator[](unsigned int index) {
    if (index > m_capacity) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Attempt to Index past End of Array: index=%d exceeds limit of %d\n",
                     DebugAppName(), "libReplay::MemoryBuffer::index", static_cast<int>(index),
                     static_cast<int>(m_capacity));
        }
        return m_data;
    }
    return m_data + index;
}

}  // namespace ReplayCore
