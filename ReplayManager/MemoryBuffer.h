#ifndef REPLAYMANAGER_MEMORYBUFFER_H
#define REPLAYMANAGER_MEMORYBUFFER_H

// A named byte buffer with a size limit. It grows in powers of two and drops
// its contents when it grows, so owners grow it before filling it.

#include <string>

#include "libreplay/ReplayExport.h"

namespace ReplayCore {

class REPLAY_API MemoryBuffer {
  public:
    MemoryBuffer(const char* name, unsigned int initialSize, unsigned int limit);
    ~MemoryBuffer();
    MemoryBuffer(const MemoryBuffer&) = delete;
    MemoryBuffer& operator=(const MemoryBuffer&) = delete;

    // Room for `size` bytes: the data pointer, or null when refused. Growth
    // goes to the smallest power of two above `size` (may exceed the limit)
    // and loses the old contents; `clear` zeroes the whole capacity.
    unsigned char* ExpandBuffer(unsigned int size, bool clear);
    // Address of byte `index`; an index equal to the capacity (one past the
    // end) is accepted, a larger one logs and yields byte 0.
    unsigned char* operator[](unsigned int index);

    unsigned char* Get() const { return m_data; }
    unsigned int Capacity() const { return m_capacity; }
    unsigned int Length() const { return m_length; }
    void SetLength(unsigned int length) { m_length = length; }
    unsigned int Limit() const { return m_limit; }
    const std::string& Name() const { return m_name; }

  private:
    unsigned int m_capacity;
    unsigned int m_length;
    unsigned char* m_data;
    unsigned int m_limit;
    std::string m_name;
};

}  // namespace ReplayCore

#endif
