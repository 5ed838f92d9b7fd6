#ifndef REPLAYMANAGER_REPLAYOUTPUTFILER_H
#define REPLAYMANAGER_REPLAYOUTPUTFILER_H

// Collects the result text an application writes during a replay and
// appends it to the results file ("ReplayOutput.txt" under the temporary
// files path, or on the network share when that is writable) one 1024-byte
// block at a time, so that many small writes cost one file append.

#include <cstdio>
#include <string>

#include "libreplay/ReplayExport.h"

class REPLAY_API ReplayOutputFiler {
  public:
    static constexpr int kBlockSize = 1024;

    static ReplayOutputFiler& Get();
    ~ReplayOutputFiler();
    ReplayOutputFiler(const ReplayOutputFiler&) = delete;
    ReplayOutputFiler& operator=(const ReplayOutputFiler&) = delete;

    // Buffers `text` (0). The write that would fill the block first appends
    // the buffered block to the file and returns the bytes written, or -1
    // when the file cannot be opened (the text is then dropped and the
    // block kept). Texts of 1024 characters or more are refused (0). One
    // writer at a time.
    int Write(const char* text);
    // Writes and closes a file left open by an interrupted flush; otherwise
    // writes nothing (buffered text waits for a later flush). Without
    // `keepPath` the results path is computed again at the next flush.
    void Close(bool keepPath);

    // The results directory, never the network share.
    std::string GetResultsFilePath() const;
    // That directory with the results file name.
    std::string GetResultsFilePathName() const;

    int BufferedLength() const { return m_count; }
    // The path the last flush used; empty before the first flush.
    const std::string& CurrentPath() const { return m_resultsFilePath; }

  private:
    ReplayOutputFiler() = default;

    int m_count = 0;
    char m_block[kBlockSize] = {};
    std::string m_resultsFilePath;
    std::FILE* m_stream = nullptr;
};

#endif
