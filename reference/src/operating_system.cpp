#include "reference/src/operating_system.h"

#include <fcntl.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <new>

const pthread_t CThread::INVALID_THREAD_ID = static_cast<pthread_t>(-1);

CThread::CThread(int stackSize, int priority, const char* threadName)
    : stackSize(stackSize),
      threadId(INVALID_THREAD_ID),
      priority(priority),
      threadName(threadName),
      running(false),
      started(false),
      createdId(),
      joinable(false) {}

// Cancels but does not wait; a thread that is not going to be joined is
// detached so that its resources are released when it ends.
CThread::~CThread() {
    cancel();
    if (joinable.exchange(false)) {
        pthread_detach(createdId);
    }
}

bool CThread::start() {
    if (threadId.load(std::memory_order_relaxed) != INVALID_THREAD_ID) {
        return true;
    }
    started.store(false, std::memory_order_relaxed);

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
    if (stackSize != 0) {
        pthread_attr_setstacksize(&attributes, static_cast<size_t>(stackSize));
    }
    // The new thread records its own identifier; storing the one returned here
    // could overwrite the invalid id of a thread that has already finished.
    // The creation result is not examined: a failed creation never sets
    // `started`, and the wait below does not end.
    // A previous thread that finished without being joined is released.
    if (joinable.exchange(false)) {
        pthread_detach(createdId);
    }
    if (pthread_create(&createdId, &attributes, &CThread::functionEntryPoint, this) == 0) {
        joinable.store(true);
    }
    pthread_attr_destroy(&attributes);

    while (!started.load(std::memory_order_acquire)) {
        sleep(0);
    }
    return true;
}

bool CThread::join() {
    if (!joinable.exchange(false)) {
        return false;
    }
    return pthread_join(createdId, nullptr) == 0;
}

bool CThread::cancel() {
    const pthread_t id = threadId.load(std::memory_order_relaxed);
    if (id == INVALID_THREAD_ID) {
        return false;
    }
    return pthread_cancel(id) == 0;
}

void CThread::sleep(unsigned int milliseconds) {
    if (milliseconds == 0) {
        sched_yield();
        return;
    }
    usleep(1000 * static_cast<useconds_t>(milliseconds));
}

pthread_t CThread::getCurrentID() {
    return pthread_self();
}

void CThread::init() {
    assignThreadName();
    running.store(true, std::memory_order_relaxed);
}

void CThread::finishingUp() {
    running.store(false, std::memory_order_relaxed);
    threadId.store(INVALID_THREAD_ID, std::memory_order_relaxed);
}

void* CThread::functionEntryPoint(void* object) {
    static_cast<CThread*>(object)->entryPoint();
    return nullptr;
}

void CThread::entryPoint() {
    threadId.store(getCurrentID(), std::memory_order_relaxed);
    init();
    running.store(true, std::memory_order_relaxed);
    started.store(true, std::memory_order_release);
    execute();
    finishingUp();
}

CPosixMutex::CPosixMutex() : initialised(false) {
    init();
}

CPosixMutex::~CPosixMutex() {
    release();
}

int CPosixMutex::init() {
    const int result = pthread_mutex_init(&mutex, nullptr);
    initialised = result == 0;
    return result;
}

int CPosixMutex::release() {
    if (!initialised) {
        return 0;
    }
    initialised = false;
    return pthread_mutex_destroy(&mutex);
}

bool CPosixMutex::lock(bool wait) {
    return (wait ? pthread_mutex_lock(&mutex) : pthread_mutex_trylock(&mutex)) == 0;
}

int CPosixMutex::unlock() {
    return pthread_mutex_unlock(&mutex);
}

CMutex::CMutex() : implementation(new (std::nothrow) CPosixMutex) {}

CMutex::~CMutex() {
    if (implementation != nullptr) {
        implementation->release();
        delete implementation;
        implementation = nullptr;
    }
}

void CMutex::lock(bool wait) {
    if (implementation != nullptr) {
        implementation->lock(wait);
    }
}

void CMutex::unlock() {
    if (implementation != nullptr) {
        implementation->unlock();
    }
}

CPosixBSem::CPosixBSem() : initialised(false) {
    init();
}

CPosixBSem::~CPosixBSem() {
    release();
}

int CPosixBSem::init() {
    const int result = sem_init(&semaphore, 0, 0);
    initialised = result == 0;
    return result;
}

int CPosixBSem::release() {
    if (!initialised) {
        return 0;
    }
    initialised = false;
    return sem_destroy(&semaphore);
}

bool CPosixBSem::lock(bool wait) {
    return (wait ? sem_wait(&semaphore) : sem_trywait(&semaphore)) == 0;
}

bool CPosixBSem::timedlock(long milliseconds) {
    if (milliseconds <= 0) {
        return sem_trywait(&semaphore) == 0;
    }
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += (milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += deadline.tv_nsec / 1000000000L;
        deadline.tv_nsec %= 1000000000L;
    }
    int result;
    do {
        result = sem_timedwait(&semaphore, &deadline);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

int CPosixBSem::unlock() {
    return sem_post(&semaphore);
}

CBinarySemaphore::CBinarySemaphore() : implementation(new (std::nothrow) CPosixBSem) {}

CBinarySemaphore::~CBinarySemaphore() {
    if (implementation != nullptr) {
        implementation->release();
        delete implementation;
        implementation = nullptr;
    }
}

bool CBinarySemaphore::lock(bool wait) {
    return implementation != nullptr && implementation->lock(wait);
}

bool CBinarySemaphore::timedlock(long milliseconds) {
    return implementation != nullptr && implementation->timedlock(milliseconds);
}

bool CBinarySemaphore::unlock() {
    return implementation != nullptr && implementation->unlock() == 0;
}

CMutexScopedLock::CMutexScopedLock(CMutex& mutex) : mutex(&mutex) {
    this->mutex->lock(true);
}

CMutexScopedLock::~CMutexScopedLock() {
    mutex->unlock();
}

CPipe::CPipe() : readFd(-1), writeFd(-1) {}

CPipe::CPipe(const CPipe& other) : readFd(other.readFd), writeFd(other.writeFd) {}

CPipe& CPipe::operator=(const CPipe& other) {
    readFd = other.readFd;
    writeFd = other.writeFd;
    return *this;
}

CPipe::~CPipe() {
    close(eBoth);
}

bool CPipe::open(bool readBlocking, bool writeBlocking) {
    return makePipe(readFd, writeFd, readBlocking, writeBlocking);
}

// The ends asked to be non-blocking get fcntl(F_SETFD, 128): 128 is the
// target's O_NONBLOCK, but F_SETFD sets descriptor flags, so both ends stay
// blocking. Callers rely on exactly this behaviour; it is kept as it is.
static bool ApplyBlockingRequest(int& fd, bool blocking) {
    if (!blocking && fcntl(fd, F_SETFD, 0x80) < 0) {
        ::close(fd);
        fd = -1;
        return false;
    }
    return true;
}

bool CPipe::makePipe(int& readFd, int& writeFd, bool readBlocking, bool writeBlocking) {
    int ends[2] = {-1, -1};
    if (pipe(ends) == 0) {
        ApplyBlockingRequest(ends[0], readBlocking);
        ApplyBlockingRequest(ends[1], writeBlocking);
        if (ends[0] != -1 && ends[1] != -1) {
            readFd = ends[0];
            writeFd = ends[1];
            return true;
        }
    }
    // Closes the descriptors held before this call, not the new ones.
    if (readFd != -1) {
        closePipe(readFd);
        readFd = -1;
    }
    if (writeFd != -1) {
        closePipe(writeFd);
        writeFd = -1;
    }
    return false;
}

int CPipe::read(void* buffer, unsigned int length) {
    return static_cast<int>(::read(readFd, buffer, length));
}

int CPipe::write(const void* buffer, unsigned int length) {
    return static_cast<int>(::write(writeFd, buffer, length));
}

void CPipe::close(ePipeDirection which) {
    if ((which & eRead) != 0 && readFd != -1) {
        closePipe(readFd);
        readFd = -1;
    }
    if ((which & eWrite) != 0 && writeFd != -1) {
        closePipe(writeFd);
        writeFd = -1;
    }
}

int CPipe::closePipe(int fd) {
    return ::close(fd);
}
