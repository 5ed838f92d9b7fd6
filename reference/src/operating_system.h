#ifndef REFERENCE_SRC_OPERATING_SYSTEM_H
#define REFERENCE_SRC_OPERATING_SYSTEM_H

// Thin classes over POSIX threads, mutexes, semaphores and pipes. This is the
// only code besides the socket code that talks to pthread and unistd directly.

#include <pthread.h>
#include <semaphore.h>

#include <atomic>

#include "libreplay/ReplayExport.h"

// Base of every thread the library runs. A subclass overrides execute(); the
// owner constructs the object once and calls start().
class REPLAY_API CThread {
  public:
    static const pthread_t INVALID_THREAD_ID;

    CThread(int stackSize, int priority, const char* threadName);
    // Cancels a running thread; does not join it.
    virtual ~CThread();

    // Starts the thread and returns once it runs; a second start while the
    // thread exists does nothing and returns true.
    bool start();
    // Waits for the thread this object started, also when it has already
    // finished; false when there is none left to wait for.
    bool join();
    bool cancel();

    static void sleep(unsigned int milliseconds);
    static pthread_t getCurrentID();
    void assignThreadName() {}

    bool isRunning() const { return running.load(std::memory_order_relaxed); }
    pthread_t getThreadId() const { return threadId.load(std::memory_order_relaxed); }

  protected:
    virtual void init();
    virtual void execute() {}
    virtual void finishingUp();

  private:
    static void* functionEntryPoint(void* object);
    void entryPoint();

    int stackSize;
    std::atomic<pthread_t> threadId;
    // Stored for the interface; threads run with the default priority and
    // without a name.
    [[maybe_unused]] int priority;
    [[maybe_unused]] const char* threadName;
    std::atomic<bool> running;
    // Set once the new thread has begun; unlike `running` it stays set when
    // execute() returns at once, so start() cannot miss a short-lived thread.
    std::atomic<bool> started;
    // The last thread created and not yet joined or detached. `threadId` is
    // cleared when execute() returns, but a finished thread must still be
    // joined (or detached) to release it.
    pthread_t createdId;
    std::atomic<bool> joinable;
};

class REPLAY_API CBaseMutex {
  public:
    virtual ~CBaseMutex() = default;
    virtual int init() = 0;
    virtual int release() = 0;
    virtual bool lock(bool wait) = 0;
    virtual int unlock() = 0;
};

class REPLAY_API CPosixMutex : public CBaseMutex {
  public:
    CPosixMutex();
    ~CPosixMutex() override;
    int init() override;
    int release() override;
    bool lock(bool wait) override;
    int unlock() override;

  private:
    pthread_mutex_t mutex;
    bool initialised;
};

// Not recursive: a thread that locks it twice deadlocks.
class REPLAY_API CMutex {
  public:
    CMutex();
    ~CMutex();
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void lock(bool wait);
    void unlock();

  private:
    CBaseMutex* implementation;
};

class REPLAY_API CBaseBinarySemaphore {
  public:
    virtual ~CBaseBinarySemaphore() = default;
    virtual int init() = 0;
    virtual int release() = 0;
    virtual bool lock(bool wait) = 0;
    virtual bool timedlock(long milliseconds) = 0;
    virtual int unlock() = 0;
};

// Process-private unnamed semaphore starting at 0: the first lock() waits for
// an unlock().
class REPLAY_API CPosixBSem : public CBaseBinarySemaphore {
  public:
    CPosixBSem();
    ~CPosixBSem() override;
    int init() override;
    int release() override;
    bool lock(bool wait) override;
    bool timedlock(long milliseconds) override;
    int unlock() override;

  private:
    sem_t semaphore;
    bool initialised;
};

class REPLAY_API CBinarySemaphore {
  public:
    CBinarySemaphore();
    ~CBinarySemaphore();
    CBinarySemaphore(const CBinarySemaphore&) = delete;
    CBinarySemaphore& operator=(const CBinarySemaphore&) = delete;

    bool lock(bool wait);
    bool timedlock(long milliseconds);
    bool unlock();

  private:
    CBaseBinarySemaphore* implementation;
};

class REPLAY_API CMutexScopedLock {
  public:
    explicit CMutexScopedLock(CMutex& mutex);
    virtual ~CMutexScopedLock();
    CMutexScopedLock(const CMutexScopedLock&) = delete;
    CMutexScopedLock& operator=(const CMutexScopedLock&) = delete;

  private:
    CMutex* mutex;
};

// Owner of an operating-system pipe. Copies share the descriptors; only one
// owner may close them.
class REPLAY_API CPipe {
  public:
    enum ePipeDirection { eRead = 1, eWrite = 2, eBoth = 3 };

    CPipe();
    CPipe(const CPipe& other);
    CPipe& operator=(const CPipe& other);
    virtual ~CPipe();

    bool open(bool readBlocking, bool writeBlocking);
    static bool makePipe(int& readFd, int& writeFd, bool readBlocking, bool writeBlocking);
    int read(void* buffer, unsigned int length);
    virtual int write(const void* buffer, unsigned int length);
    int getReadDescriptor() const { return readFd; }
    int getWriteDescriptor() const { return writeFd; }
    void close(ePipeDirection which);
    static int closePipe(int fd);

  private:
    int readFd;
    int writeFd;
};

#endif
