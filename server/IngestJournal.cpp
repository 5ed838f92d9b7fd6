#include "server/IngestJournal.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <unordered_map>

#include "reference/src/file_io.h"

namespace ReplayServer {

namespace {

constexpr char kReceived = 'R';
constexpr char kWritten = 'W';
constexpr size_t kEntryHeader = 5;  // kind, then the length as 4 bytes, little-endian
// Larger entries cannot be a record: the file is damaged from there on.
constexpr uint32_t kLongestEntry = 65536;
constexpr std::chrono::milliseconds kGatherInterval(10);
constexpr std::chrono::seconds kSyncInterval(1);

void AppendEntry(std::string& out, char kind, const char* data, size_t size) {
    const uint32_t length = static_cast<uint32_t>(size);
    char header[kEntryHeader] = {
        kind, static_cast<char>(length & 0xff), static_cast<char>((length >> 8) & 0xff),
        static_cast<char>((length >> 16) & 0xff), static_cast<char>((length >> 24) & 0xff)};
    out.append(header, kEntryHeader);
    out.append(data, size);
}

void MakeParentDirectories(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        ::mkdir(path.substr(0, slash).c_str(), 0755);  // an existing one is fine
    }
}

}  // namespace

IngestJournal::IngestJournal(std::string path, size_t compactBytes)
    : m_path(std::move(path)), m_compactBytes(compactBytes) {}

IngestJournal::~IngestJournal() {
    Close();
}

uint64_t IngestJournal::Hash(const char* data, size_t size) {
    uint64_t hash = 1469598103934665603ULL;  // FNV-1a
    for (size_t i = 0; i < size; ++i) {
        hash ^= static_cast<unsigned char>(data[i]);
        hash *= 1099511628211ULL;
    }
    return hash;
}

ReplayPlatform::Status IngestJournal::Open(std::vector<std::string>& unwritten) {
    std::lock_guard<std::mutex> lock(m_fileMutex);
    MakeParentDirectories(m_path);
    ReplayPlatform::Status status = Rewrite(&unwritten);
    if (status.IsOk()) {
        m_lastSync = Clock::now();
    }
    return status;
}

ReplayPlatform::Status IngestJournal::Rewrite(std::vector<std::string>* unwritten) {
    std::string contents;
    const int existing = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (existing >= 0) {
        const bool read = ReplayPlatform::ReadToEnd(existing, contents);
        const int readError = errno;
        ReplayPlatform::CloseDescriptor(existing);
        if (!read) {
            return ReplayPlatform::Status::SystemFailure("cannot read the journal " + m_path,
                                                         readError);
        }
    }
    // Received entries in order, less one for each written mark of the same
    // bytes. A torn last entry (the server died while writing it) ends the
    // scan.
    std::vector<std::pair<size_t, size_t>> received;
    std::unordered_map<uint64_t, size_t> written;
    size_t at = 0;
    while (at + kEntryHeader <= contents.size()) {
        const unsigned char* header = reinterpret_cast<const unsigned char*>(&contents[at]);
        const uint32_t length = header[1] | (header[2] << 8) | (header[3] << 16) |
                                (static_cast<uint32_t>(header[4]) << 24);
        if (length > kLongestEntry || at + kEntryHeader + length > contents.size()) {
            break;
        }
        const size_t start = at + kEntryHeader;
        if (header[0] == kReceived) {
            received.emplace_back(start, length);
        } else if (header[0] == kWritten && length == sizeof(uint64_t)) {
            uint64_t hash = 0;
            std::memcpy(&hash, &contents[start], sizeof hash);
            ++written[hash];
        } else {
            break;
        }
        at = start + length;
    }
    std::string kept;
    for (const auto& entry : received) {
        const char* data = &contents[entry.first];
        auto mark = written.find(Hash(data, entry.second));
        if (mark != written.end() && mark->second > 0) {
            --mark->second;
            continue;
        }
        if (unwritten != nullptr) {
            unwritten->emplace_back(data, entry.second);
        }
        AppendEntry(kept, kReceived, data, entry.second);
    }

    // The file is replaced by one holding only the unwritten records, so
    // that it is as long as what is still to be written.
    const std::string fresh = m_path + ".new";
    const int fd = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        return ReplayPlatform::Status::SystemFailure("cannot create the journal " + fresh, errno);
    }
    const int previous = m_fd;
    m_fd = fd;
    const bool wrote = WriteAll(kept.data(), kept.size()) && ReplayPlatform::SyncFileData(fd);
    if (!wrote || ::rename(fresh.c_str(), m_path.c_str()) != 0) {
        const int writeError = errno;
        ReplayPlatform::CloseDescriptor(fd);
        m_fd = previous;  // a failed compaction keeps the old file going
        return ReplayPlatform::Status::SystemFailure("cannot write the journal " + m_path,
                                                     writeError);
    }
    if (previous >= 0) {
        ReplayPlatform::CloseDescriptor(previous);
    }
    m_fileBytes = kept.size();
    // A journal whose unwritten part is large is not rewritten over and over.
    m_compactAt = std::max(m_compactBytes, 2 * kept.size());
    return ReplayPlatform::Status::Ok();
}

void IngestJournal::Start() {
    std::lock_guard<std::mutex> lock(m_threadMutex);
    if (m_thread.joinable() || m_fd < 0) {
        return;
    }
    m_stop = false;
    m_thread = std::thread(&IngestJournal::Run, this);
}

void IngestJournal::Close() {
    {
        std::lock_guard<std::mutex> lock(m_threadMutex);
        m_stop = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    if (m_fd >= 0) {
        FlushGathered(Clock::now() + kSyncInterval);
        std::lock_guard<std::mutex> lock(m_fileMutex);
        ReplayPlatform::CloseDescriptor(m_fd);
        m_fd = -1;
    }
}

void IngestJournal::Received(const char* data, size_t size) {
    m_received.fetch_add(1, std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(m_gatherMutex);
    AppendEntry(m_gathered, kReceived, data, size);
}

void IngestJournal::Written(const char* data, size_t size) {
    m_written.fetch_add(1, std::memory_order_relaxed);
    const uint64_t hash = Hash(data, size);
    std::string entry;
    AppendEntry(entry, kWritten, reinterpret_cast<const char*>(&hash), sizeof hash);
    std::lock_guard<std::mutex> lock(m_fileMutex);
    WriteAll(entry.data(), entry.size());
}

void IngestJournal::FlushGathered(Clock::time_point now) {
    std::string batch;
    {
        std::lock_guard<std::mutex> lock(m_gatherMutex);
        batch.swap(m_gathered);
    }
    std::lock_guard<std::mutex> lock(m_fileMutex);
    if (!batch.empty()) {
        WriteAll(batch.data(), batch.size());
    }
    if (m_fd >= 0 && m_fileBytes > m_compactAt) {
        // A long recording: drop the records already written. A failure
        // keeps the old file and counts as a write failure in the status.
        if (Rewrite(nullptr).IsOk()) {
            m_lastSync = now;
        } else {
            m_writeFailures.fetch_add(1, std::memory_order_relaxed);
            m_compactAt = m_fileBytes + m_compactBytes;
        }
    }
    // Only what changed is synced: a sync forces the file system's journal
    // out, which can stall every other writer on the medium (a replaying
    // client's own files among them) while nothing here needs it.
    if (m_fd >= 0 && m_unsynced && now - m_lastSync >= kSyncInterval) {
        ReplayPlatform::SyncFileData(m_fd);
        m_lastSync = now;
        m_unsynced = false;
    }
}

void IngestJournal::Reset() {
    FlushGathered(Clock::now());
    std::lock_guard<std::mutex> lock(m_fileMutex);
    if (m_fd >= 0 && ReplayPlatform::TruncateFile(m_fd, 0)) {
        ReplayPlatform::SyncFileData(m_fd);
        m_fileBytes = 0;
    }
}

bool IngestJournal::WriteAll(const char* data, size_t size) {
    if (m_fd < 0) {
        m_writeFailures.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    const size_t wrote = ReplayPlatform::WriteUpTo(m_fd, data, size);
    m_fileBytes += wrote;
    m_unsynced = m_unsynced || wrote > 0;
    if (wrote < size) {
        m_writeFailures.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    return true;
}

void IngestJournal::Run() {
    std::unique_lock<std::mutex> lock(m_threadMutex);
    while (!m_stop) {
        m_wake.wait_for(lock, kGatherInterval);
        lock.unlock();
        FlushGathered(Clock::now());
        lock.lock();
    }
}

}  // namespace ReplayServer
