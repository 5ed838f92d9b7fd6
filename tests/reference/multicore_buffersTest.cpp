#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "tests/reference/MulticoreTestSupport.h"

namespace {

using MulticoreTest::Record;

class MulticoreBuffersTest : public MulticoreTest::Fixture {};

std::string RecordBytes(char console, const std::string& text) {
    return std::string(1, console) + static_cast<char>(text.size()) + text;
}

TEST_F(MulticoreBuffersTest, RecordsAreCodeLengthAndTextAndGoOutAfterTheWaitOrOnFlush) {
    EXPECT_EQ(mi_multicoreLog('a', 0, "hello %d", 42), 1);
    EXPECT_EQ(Device(), RecordBytes('a', "hello 42\n"));  // the first line goes out at once

    EXPECT_EQ(mi_multicoreLog('b', 0, "ends in newline\n"), 1);
    EXPECT_EQ(mi_multicoreLog('c', 0, "%s", ""), 1);
    EXPECT_EQ(mi_multicoreLog('c', 3, "above the default level 2"), 1);
    const char* noFormat = nullptr;
    EXPECT_EQ(mi_multicoreLog('c', 0, noFormat), 1);
    char* raw = mi_getMulticoreBuffer();
    ASSERT_NE(raw, nullptr);
    std::memcpy(raw, "no\0nl", 5);
    EXPECT_EQ(mi_multicoreLogBuffer('d' + 256, 5, raw), 1);  // code taken modulo 256
    mi_flushBuffer();

    EXPECT_EQ(Device(), RecordBytes('a', "hello 42\n") + RecordBytes('b', "ends in newline\n") +
                            RecordBytes('c', "\n") + RecordBytes('d', std::string("no\0nl", 5)));

    MulticoreTest::g_fakeNow += 500;  // not yet past the wait
    mi_multicoreLog('a', 0, "second");
    EXPECT_EQ(Records().size(), 4u);
    MulticoreTest::g_fakeNow += 1;
    mi_multicoreLog('a', 0, "third");
    EXPECT_EQ(Records().size(), 6u);
    mi_multicoreLog('a', 0, "fourth");
    EXPECT_EQ(Records().size(), 6u);
    mi_flushBuffer();
    EXPECT_EQ(Records().size(), 7u);
}

TEST_F(MulticoreBuffersTest, MissingDeviceDropsEachBatchReportsOnceAndFreesBuffers) {
    std::remove((Root() + kDevice).c_str());
    mi_setBufferConfig(0, 5000);
    mi_flushBuffer();  // nothing queued: starts the batch clock without opening
    // The pool runs dry at the 101st and 201st line; each dropped batch frees its buffers.
    int sent = 0;
    for (int line = 0; line < 250; ++line) {
        sent += mi_multicoreLog('a', 0, "line %d", line);
    }
    mi_flushBuffer();
    EXPECT_EQ(sent, 250);
    EXPECT_EQ(m_systemLog.Count("MultiConsole write open"), 1);
    EXPECT_EQ(miInternal_getOutputCounters().openErrors, 3u);
    EXPECT_EQ(miInternal_getOutputCounters().writeIgnoredCount, 3u);
}

TEST_F(MulticoreBuffersTest, FifoWithoutReaderFailsAtOnceAndWorksWithOne) {
    const std::string fifo = Root() + kDevice;
    std::remove(fifo.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

    mi_multicoreLog('a', 0, "nobody listens");   // must not block
    EXPECT_EQ(m_systemLog.Count("error 6"), 1);  // ENXIO

    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    mi_multicoreLog('a', 0, "heard");
    mi_flushBuffer();
    char received[64] = {};
    const ssize_t count = read(reader, received, sizeof received);
    EXPECT_EQ(std::string(received, count > 0 ? count : 0), RecordBytes('a', "heard\n"));

    // The service going away must not raise SIGPIPE in the application.
    close(reader);
    mi_multicoreLog('a', 0, "reader gone");
    mi_flushBuffer();
    mi_multicoreLog('a', 0, "still alive");
    mi_flushBuffer();
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    EXPECT_EQ(m_systemLog.Count("error 6"), 2);
}

TEST_F(MulticoreBuffersTest, BadHandBacksAreRejectedOrRepaired) {
    mi_flushBuffer();  // keep the lines queued until the end
    char foreign[MI_MULTICORE_BUFFER_SIZE];
    EXPECT_EQ(mi_multicoreLogBuffer('a', 1, foreign), 0);
    EXPECT_EQ(m_systemLog.Count("mi_multicoreLogBuffer : invalid buffer ptr"), 1);

    char* buffer = mi_getMulticoreBuffer();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(mi_multicoreLogBuffer('a', 1, buffer + 1), 0);  // not the start of a buffer

    std::memset(buffer, 'o', MI_MULTICORE_BUFFER_SIZE + 4);
    EXPECT_EQ(mi_multicoreLogBuffer('a', 150, buffer), 1);
    EXPECT_EQ(m_systemLog.Count("possible buffer overrun End marker 6f6f6f6f"), 1);
    EXPECT_EQ(mi_multicoreLogBuffer('a', 1, buffer), 0);  // handed back twice
    mi_flushBuffer();
    ASSERT_EQ(Records().size(), 1u);
    EXPECT_EQ(Records()[0].text, std::string(MI_MULTICORE_BUFFER_SIZE, 'o'));
}

TEST_F(MulticoreBuffersTest, TextThatDoesNotFitBecomesDataLost) {
    const std::string long100(100, 'x');
    EXPECT_EQ(mi_multicoreLog('a', 0, "%s", long100.c_str()), 1);  // 100 + newline fits
    const std::string long101(101, 'x');
    EXPECT_EQ(mi_multicoreLog('a', 0, "%s", long101.c_str()), 1);  // with the newline: full
    EXPECT_EQ(mi_multicoreLog('a', 0, "%s", std::string(102, 'x').c_str()), 0);

    mi_setConsoleFlags('b', MI_PREFIX_BOOT_TIME);
    const std::string longFormat = std::string(95, 'f') + "%d";
    EXPECT_EQ(mi_multicoreLog('b', 0, longFormat.c_str(), 1), 0);
    EXPECT_EQ(mi_getLostPrintfErrorCount(), 2u);

    const std::vector<std::string> texts = FlushedTexts();
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[0], long100 + "\n");
    EXPECT_EQ(texts[1], long101 + "\n");
    EXPECT_EQ(texts[2], "DATA LOST " + std::string(8, ' ') + "%s\n");
    EXPECT_EQ(texts[3], "DATA LOST\n");
}

TEST_F(MulticoreBuffersTest, ConcurrentLoggersAndFlusherAccountForEveryLine) {
    // A logger may find the pool used up right after its own flush: dropped and counted.
    miInternal_setTimeSourceForTesting(nullptr);  // real boot clock
    constexpr int kThreads = 4;
    constexpr int kLines = 1500;
    std::atomic<bool> done{false};
    std::thread flusher([&] {
        while (!done.load()) {
            mi_flushBuffer();
            std::this_thread::yield();
        }
    });
    std::vector<std::vector<int>> dropped(kThreads);
    std::vector<std::thread> loggers;
    for (int thread = 0; thread < kThreads; ++thread) {
        loggers.emplace_back([&, thread] {
            mi_setConsoleFlags('a' + thread, MI_PREFIX_THREAD);
            for (int line = 0; line < kLines; ++line) {
                if (mi_multicoreLog('a' + thread, 0, "%d %d", thread, line) != 1) {
                    dropped[thread].push_back(line);
                }
            }
        });
    }
    for (std::thread& logger : loggers) {
        logger.join();
    }
    done = true;
    flusher.join();
    mi_flushBuffer();

    EXPECT_EQ(miInternal_getOutputCounters().writeErrors, 0u);

    std::vector<std::vector<int>> delivered(kThreads);
    for (const Record& record : Records()) {
        const int thread = record.console - 'a';
        ASSERT_TRUE(thread >= 0 && thread < kThreads) << record.text;
        int id = 0, from = -1, line = -1;
        ASSERT_EQ(std::sscanf(record.text.c_str(), "[%d] %d %d\n", &id, &from, &line), 3)
            << record.text;
        EXPECT_EQ(from, thread);
        delivered[thread].push_back(line);
    }
    size_t lost = 0;
    for (int thread = 0; thread < kThreads; ++thread) {
        lost += dropped[thread].size();
        std::vector<int> all = delivered[thread];
        EXPECT_TRUE(std::is_sorted(all.begin(), all.end())) << "lines of a thread stay in order";
        all.insert(all.end(), dropped[thread].begin(), dropped[thread].end());
        std::sort(all.begin(), all.end());
        std::vector<int> expected(kLines);
        std::iota(expected.begin(), expected.end(), 0);
        EXPECT_EQ(all, expected) << "thread " << thread;
    }
    EXPECT_EQ(mi_getLostPrintfErrorCount(), lost);
    EXPECT_LT(lost, static_cast<size_t>(kThreads * kLines / 10)) << "most lines arrive";
}

}  // namespace
